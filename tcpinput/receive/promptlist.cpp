// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "tcpinput/receive/promptlist.h"

#include <QtCore/QTimerEvent>

#include <algorithm>

void PromptList::add(Waiting &waiting, std::chrono::milliseconds rest)
{
    if (waiting.due)
        return;
    const Clock::Steady wanted = Clock::steady() + rest;
    const auto late = wanted.time_since_epoch() % MostDelay;
    waiting.due = late.count() == 0 ? wanted : wanted + (MostDelay - late);
    const auto place = all.emplace(*waiting.due, &waiting).first;
    if (place == all.begin())
        startTimer();
}

void PromptList::remove(Waiting &waiting)
{
    if (!waiting.due)
        return;
    all.erase({*waiting.due, &waiting}); // the timer may come for nothing
    waiting.due.reset();
}

void PromptList::timerEvent(QTimerEvent *event)
{
    if (event->timerId() != timer.timerId())
        return QObject::timerEvent(event);
    look();
}

// What is called may run the event loop, and may make, end or delete connections.
void PromptList::look()
{
    timer.stop();
    const Clock::Steady now = Clock::steady();
    while (!all.empty() && all.begin()->first <= now) {
        Waiting &waiting = *all.begin()->second;
        remove(waiting);
        waiting.waitIsOver();
    }
    if (!all.empty())
        startTimer();
}

void PromptList::startTimer()
{
    const auto rest =
            std::chrono::ceil<std::chrono::milliseconds>(all.begin()->first - Clock::steady());
    timer.start(static_cast<int>(std::max<qint64>(rest.count(), 0)), Qt::PreciseTimer, this);
}
