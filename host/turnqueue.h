// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include "eventloop/epolleventdispatcher.h"

#include <QtCore/QElapsedTimer>
#include <QtCore/QObject>

#include <chrono>
#include <deque>
#include <memory>

namespace host {

/*!
    Shares the thread among connections that have more to read than fits into one go.

    Each of them has one go in turn. In a turn of the event loop they have a limited time. So
    signals, new connections and other connections' records are handled in between.

    Thread: its creator's, with an event loop.
*/
class TurnQueue : public QObject
{
    Q_OBJECT

public:
    explicit TurnQueue(std::chrono::nanoseconds timePerTurn);

    // Whether this turn of the event loop has time left for what has just come. That time does not
    // count what waiting connections take, and those do not wait for what comes.
    bool hasTime();

    // Its go comes in a later turn.
    void append(quint64 connection);

    void clear() { waiting.clear(); }

Q_SIGNALS:
    // It is this connection's go, which ends with the signal. It may be appended again.
    void reached(quint64 connection);

private:
    void playTurn();
    void post();

    const std::chrono::nanoseconds time;
    std::deque<quint64> waiting;
    QElapsedTimer sinceFirst; // of what came in this turn of the event loop
    quint64 turn = 0; // of the event loop, in which something came last
    // Who counts the turns; null: nobody does, so they are counted here.
    std::shared_ptr<const EpollEventDispatcher::Pulse> pulse;
    quint64 turnsOfQt = 1;
    bool posted = false;
};

} // namespace host
