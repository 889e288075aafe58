// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "simulator/composedmessages.h"

#include "simulator/linesource.h"

#include <QtCore/QDateTime>

namespace simulator {

ComposedMessages::ComposedMessages(const Options &given, const LineSource *lineSource)
    : options(given),
      lines(lineSource)
{}

bool ComposedMessages::append(QByteArray &out, quint64 device, quint64 number) const
{
    return options.framing.append(out, payload(device, number));
}

qsizetype ComposedMessages::usualBytes() const
{
    return qMax<qsizetype>(1, payload(1, 1).size() + options.framing.overhead());
}

QByteArray ComposedMessages::payload(quint64 device, quint64 number) const
{
    QByteArray line = lines ? lines->line(number) : QByteArray();
    if (!options.messageTemplate)
        return line;
    return options.messageTemplate->payload(
            {device, number, QDateTime::currentMSecsSinceEpoch(), options.seed, line});
}

} // namespace simulator
