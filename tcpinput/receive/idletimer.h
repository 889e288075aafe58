// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include <QtCore/QTimer>

#include <chrono>

/*!
    The idle time-out of a connection. Offers begin the idle time anew, far more often than it ends.
    So begin() only notes the time and leaves the timer running; isOver() then sets the timer to the
    rest.

    Thread: its creator's.
    Owner:  the client, as a member.
*/
class IdleTimer final : public QTimer
{
public:
    // timeoutMs: 0 or more. Does not start the timer.
    IdleTimer(QObject *parent, int timeoutMs)
        : QTimer(parent),
          timeout(timeoutMs),
          active(Monotonic::now())
    {
        setInterval(timeoutMs);
    }

    // The idle time begins now.
    void begin() { active = Monotonic::now(); }

    // Ends the idle time now.
    void end() { active = Monotonic::now() - timeout; }

    // The idle time that is left; 0 or less if it is over.
    std::chrono::milliseconds rest() const
    {
        return std::chrono::ceil<std::chrono::milliseconds>(active + timeout - Monotonic::now());
    }

    // To be called when the timer fires. False: not over, and the timer is set to the rest.
    bool isOver()
    {
        const std::chrono::milliseconds left = rest();
        if (left <= std::chrono::milliseconds::zero())
            return true;
        start(left);
        return false;
    }

private:
    using Monotonic = std::chrono::steady_clock; // not the Clock that tests replace

    const std::chrono::milliseconds timeout;
    Monotonic::time_point active;
};
