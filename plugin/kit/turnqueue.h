// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include <QtCore/QElapsedTimer>
#include <QtCore/QObject>

#include <atomic>
#include <chrono>
#include <deque>
#include <limits>
#include <memory>

namespace inputkit {

//! Counts the turns of an event loop: another number with each. Null: counted by the signal awake()
//! of the thread's event dispatcher, as Qt's own dispatchers have it.
using TurnCount = std::shared_ptr<const std::atomic<quint64>>;

/*!
    Shares the thread among connections that have more to read than fits into one go.

    The connections have their goes in turn. All goes in one turn of the event loop together have a
    limited time. So signals, new connections and other connections' records are handled in between.

    Thread: its creator's, with an event loop.
*/
class TurnQueue : public QObject
{
    Q_OBJECT

public:
    explicit TurnQueue(std::chrono::nanoseconds timePerTurn, TurnCount turnCount = {});

    // Whether this turn of the event loop has time left for a record that has just come. The goes
    // of waiting connections have a time of their own, so neither has to wait for the other.
    bool hasTime();

    // In nanoseconds, since this object was made: when hasTime() was asked first in this turn.
    // Costs no look at the clock.
    qint64 turnTime() const { return first; }
    qint64 now() const { return clock.nsecsElapsed(); }

    // The connection's go comes in a later turn of the event loop.
    void append(quint64 connection);

    void clear() { waiting.clear(); }

Q_SIGNALS:
    // It is this connection's go, which ends when the slots return. They may append it again.
    void reached(quint64 connection);

private:
    void playTurn();
    void post();

    const std::chrono::nanoseconds time;
    std::deque<quint64> waiting;
    QElapsedTimer clock;
    qint64 first = 0; // the time of the first record of this turn
    // Of the event loop, in which the last record came. At first none: no turn has this number.
    quint64 turn = std::numeric_limits<quint64>::max();
    const TurnCount turns;
    quint64 turnsOfQt = 1; // if turns is null
    bool posted = false;
};

} // namespace inputkit
