// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include "tcpinput/clock.h"

#include <QtCore/QtGlobal>

#include <atomic>

/*!
    The clients' wall clock, which stands still but for what the test moves it, while this lives.

    Thread: any may read it; made and destroyed only while no client lives.
*/
class MovableClock
{
public:
    MovableClock()
    {
        time = Start;
        Clock::setSource(&MovableClock::now);
    }
    ~MovableClock() { Clock::reset(); }
    Q_DISABLE_COPY_MOVE(MovableClock)

    // Negative: sets the clock back.
    static void advance(qint64 ms) { time += ms; }

private:
    static qint64 now() { return time; }

    static constexpr qint64 Start = 1'600'000'000'000; // ms since the epoch
    static inline std::atomic<qint64> time = Start;
};
