// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include "tcpinput/receive/clock.h"

#include <QtCore/QBasicTimer>
#include <QtCore/QObject>

#include <chrono>
#include <optional>
#include <set>
#include <utility>

/*!
    The connections of one thread with bytes that wait for the end of the interval between offers.
    One timer serves them all. A connection whose message is offered at once never comes in here.

    Thread: its creator's, which is also that of the connections.
    Owner:  the task. It outlives the connections.
*/
class PromptList : public QObject
{
public:
    //! What a connection is to the list.
    class Waiting
    {
    public:
        // Its time has come; it is on the list no more.
        virtual void waitIsOver() = 0;

        // Its time, while it is on the list. Only the list sets it.
        std::optional<Clock::Steady> due;

    protected:
        ~Waiting() = default;
    };

    // Calls waiting when the rest is over, or up to MostDelay later. Does nothing if it is on the
    // list already.
    void add(Waiting &waiting, std::chrono::milliseconds rest);
    // To be called before it is destroyed.
    void remove(Waiting &waiting);

    // Calls all whose time has come; the timer does it.
    void look();

    // So that many connections need few wake-ups.
    static constexpr std::chrono::milliseconds MostDelay{5};

protected:
    void timerEvent(QTimerEvent *event) override;

private:
    void startTimer();

    std::set<std::pair<Clock::Steady, Waiting *>> all; // by their times
    QBasicTimer timer; // for the first of them
};
