// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include <QtCore/QDateTime>

#include <atomic>
#include <chrono>

/*!
    The clocks by which clients decide on offers. Tests replace them.

    Thread: now() and steady() any; setSources() and reset() only while no client lives.
*/
class Clock
{
public:
    using Steady = std::chrono::steady_clock::time_point;
    using Source = qint64 (*)(); // milliseconds since the epoch
    using SteadySource = Steady (*)();

    // The wall clock, which may be set.
    static qint64 now() { return source.load(std::memory_order_relaxed)(); }
    // The monotonic clock: for the time between two events. It is never set, and finer.
    static Steady steady() { return steadySource.load(std::memory_order_relaxed)(); }

    static void setSources(Source wall, SteadySource monotonic)
    {
        source.store(wall, std::memory_order_relaxed);
        steadySource.store(monotonic, std::memory_order_relaxed);
    }
    static void reset()
    {
        setSources(&QDateTime::currentMSecsSinceEpoch, &std::chrono::steady_clock::now);
    }

private:
    static inline std::atomic<Source> source = &QDateTime::currentMSecsSinceEpoch;
    static inline std::atomic<SteadySource> steadySource = &std::chrono::steady_clock::now;
};
