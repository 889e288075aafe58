// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "host/turnqueue.h"

#include <QtCore/QAbstractEventDispatcher>

#include <utility>

namespace host {

TurnQueue::TurnQueue(std::chrono::nanoseconds timePerTurn) : time(timePerTurn)
{
    // A posted call would tell it, too, at ten times the cost for every message.
    connect(QAbstractEventDispatcher::instance(), &QAbstractEventDispatcher::awake, this,
            [this] { turnIsNew = true; });
}

bool TurnQueue::hasTime()
{
    if (turnIsNew) {
        turnIsNew = false;
        sinceFirst.start();
        return true;
    }
    return sinceFirst.nsecsElapsed() < time.count();
}

void TurnQueue::append(quint64 connection)
{
    waiting.push_back(connection);
    post();
}

void TurnQueue::playTurn()
{
    posted = false;
    QElapsedTimer since;
    since.start();
    while (!waiting.empty()) {
        const quint64 first = waiting.front();
        waiting.pop_front();
        Q_EMIT reached(first);
        if (since.nsecsElapsed() >= time.count())
            break;
    }
    if (!waiting.empty())
        post();
}

// Events that are posted while others are sent come in the next turn, behind sockets and timers.
void TurnQueue::post()
{
    if (std::exchange(posted, true))
        return;
    QMetaObject::invokeMethod(this, &TurnQueue::playTurn, Qt::QueuedConnection);
}

} // namespace host
