// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "plugin/kit/turnqueue.h"

#include <QtCore/QAbstractEventDispatcher>

#include <atomic>
#include <utility>

namespace inputkit {

TurnQueue::TurnQueue(std::chrono::nanoseconds timePerTurn, TurnCount turnCount)
    : time(timePerTurn),
      turns(std::move(turnCount))
{
    clock.start();
    if (!turns)
        connect(QAbstractEventDispatcher::instance(), &QAbstractEventDispatcher::awake, this,
                [this] { ++turnsOfQt; });
}

bool TurnQueue::hasTime()
{
    const quint64 number = turns ? turns->load(std::memory_order_relaxed) : turnsOfQt;
    if (std::exchange(turn, number) != number) {
        first = now();
        return true;
    }
    return now() - first < time.count();
}

void TurnQueue::append(quint64 connection)
{
    waiting.push_back(connection);
    post();
}

void TurnQueue::playTurn()
{
    posted = false;
    const qint64 begin = now();
    while (!waiting.empty()) {
        const quint64 next = waiting.front();
        waiting.pop_front();
        Q_EMIT reached(next);
        if (now() - begin >= time.count())
            break;
    }
    if (!waiting.empty())
        post();
}

// Events that are posted while posted events are sent come in the next turn, after sockets and
// timers.
void TurnQueue::post()
{
    if (std::exchange(posted, true))
        return;
    QMetaObject::invokeMethod(this, &TurnQueue::playTurn, Qt::QueuedConnection);
}

} // namespace inputkit
