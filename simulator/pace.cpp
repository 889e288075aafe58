// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "simulator/pace.h"

#include <cmath>
#include <limits>

namespace simulator {
namespace {

constexpr double NsPerSecond = 1e9;
constexpr double MsPerSecond = 1e3;
constexpr double LongestMs = 24 * 3600 * MsPerSecond; // after so long a wait the caller asks again

} // namespace

void Pace::start()
{
    if (!clock.isValid())
        clock.start();
}

quint64 Pace::due() const
{
    if (rate <= 0)
        return std::numeric_limits<quint64>::max();
    if (!clock.isValid())
        return first;
    return first
            + static_cast<quint64>(static_cast<double>(clock.nsecsElapsed()) * rate / NsPerSecond);
}

int Pace::msUntil(quint64 number) const
{
    if (number <= due())
        return 0;
    const double elapsedMs = static_cast<double>(clock.nsecsElapsed()) * MsPerSecond / NsPerSecond;
    const double ms = static_cast<double>(number - first) * MsPerSecond / rate - elapsedMs;
    return static_cast<int>(std::ceil(qBound(0.0, ms, LongestMs)));
}

void Pace::delay(quint64 number)
{
    if (!clock.isValid() || number > due())
        return;
    clock.start();
    first = number;
}

} // namespace simulator
