// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include <QtCore/QTimer>

#include <chrono>

/*!
    How long a connection has been idle. Offers begin the idle time anew, far more often than it
    ends: that only notes the time. The timer itself runs on, and isOver() sets it to the rest.

    Thread: its creator's.
    Owner:  the client, as a member.
*/
class IdleTimer final : public QTimer
{
public:
    // timeoutMs: 0 and more. Does not run yet.
    IdleTimer(QObject *parent, int timeoutMs)
        : QTimer(parent),
          timeout(timeoutMs),
          active(Clock::now())
    {
        setInterval(timeoutMs);
    }

    // The idle time begins now.
    void begin() { active = Clock::now(); }

    // It is over now, whenever it began.
    void end() { active = Clock::now() - timeout; }

    // How much of it is left; 0 or less: it is over.
    std::chrono::milliseconds rest() const
    {
        return std::chrono::ceil<std::chrono::milliseconds>(active + timeout - Clock::now());
    }

    // For the slot of timeout(). False: the timer runs for the rest.
    bool isOver()
    {
        const std::chrono::milliseconds left = rest();
        if (left <= std::chrono::milliseconds::zero())
            return true;
        start(left);
        return false;
    }

private:
    using Clock = std::chrono::steady_clock;

    const std::chrono::milliseconds timeout;
    Clock::time_point active;
};
