// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include <QtCore/QDateTime>

#include <atomic>

/*!
    The wall clock that clients compare their last offer with; tests put another in its place.

    Thread: now() any; setSource() only while no client lives.
*/
class Clock
{
public:
    using Source = qint64 (*)(); // milliseconds since the epoch

    static qint64 now() { return source.load(std::memory_order_relaxed)(); }
    static void setSource(Source value) { source.store(value, std::memory_order_relaxed); }
    static void reset() { setSource(&QDateTime::currentMSecsSinceEpoch); }

private:
    static inline std::atomic<Source> source = &QDateTime::currentMSecsSinceEpoch;
};
