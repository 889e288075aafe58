// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "tcpinput/receive/pausedlist.h"

#include <QtCore/QTimerEvent>

#include <vector>

namespace {

constexpr int LookEveryMs = 10;

} // namespace

void PausedList::add(Paused &paused)
{
    all.insert(&paused);
    if (!timer.isActive())
        timer.start(LookEveryMs, Qt::PreciseTimer, this);
}

void PausedList::timerEvent(QTimerEvent *event)
{
    if (event->timerId() != timer.timerId())
        return QObject::timerEvent(event);
    lookAtAll();
}

// What is called may run the event loop, and may end or delete connections.
void PausedList::lookAtAll()
{
    const Paused::Time now = std::chrono::steady_clock::now();
    const std::vector<Paused *> found(all.begin(), all.end());
    for (Paused *paused : found) {
        if (all.count(paused) > 0)
            paused->look(now);
    }
    if (all.empty())
        timer.stop();
}
