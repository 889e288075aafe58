// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include "tcpinput/receive/clock.h"

#include <QtCore/QtGlobal>

#include <algorithm>
#include <atomic>
#include <chrono>

/*!
    Replaces the clients' clocks during its lifetime. They stand still until the test moves them.

    Thread: any may read it; made and destroyed only while no client lives.
*/
class MovableClock
{
public:
    MovableClock()
    {
        time = Start;
        monotonic = 0;
        Clock::setSources(&MovableClock::now, &MovableClock::steady);
    }
    ~MovableClock() { Clock::reset(); }
    Q_DISABLE_COPY_MOVE(MovableClock)

    // Negative: sets the wall clock back.
    static void advance(qint64 ms)
    {
        time += ms;
        advance(std::chrono::milliseconds(std::max<qint64>(ms, 0)));
    }
    // Moves the monotonic clock alone, by less than a unit of the wall clock.
    static void advance(std::chrono::nanoseconds little) { monotonic += little.count(); }

private:
    static qint64 now() { return time; }
    static Clock::Steady steady() { return Clock::Steady(std::chrono::nanoseconds(monotonic)); }

    static constexpr qint64 Start = 1'600'000'000'000; // ms since the epoch
    static inline std::atomic<qint64> time = Start;
    static inline std::atomic<qint64> monotonic = 0; // ns
};
