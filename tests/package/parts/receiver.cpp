// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "receiver.h"

#include "parser.h"

Receiver::Receiver(IInputPlugin &input) : plugin(input)
{
    connect(&plugin, &IInputPlugin::receivedData, this, &Receiver::take);
}

void Receiver::take(const shared_parsedData &record)
{
    const int complete = completeLines(*record);
    if (complete == 0)
        return;
    received += record->getOriginalMessage().left(complete);
    plugin.discard(complete, record->getPluginSubId());
    Q_EMIT linesCame();
}
