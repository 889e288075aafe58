// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "tcpinput/receive/backlogwatch.h"

#include <QtCore/QTimerEvent>

namespace {

constexpr int LookAfterMs = 1000;

} // namespace

BacklogWatch::Place BacklogWatch::add(Watched *watched)
{
    if (!timer.isActive())
        timer.start(LookAfterMs, this);
    all.push_back(watched);
    return all.size() - 1;
}

void BacklogWatch::timerEvent(QTimerEvent *event)
{
    if (event->timerId() != timer.timerId())
        return QObject::timerEvent(event);
    look();
}

void BacklogWatch::look()
{
    timer.stop();
    // Nothing below runs code that could make or end a client.
    for (Watched *watched : all) {
        if (watched)
            watched->endWatch();
    }
    all.clear();
}
