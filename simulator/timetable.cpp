// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "simulator/timetable.h"

#include <algorithm>
#include <cmath>

namespace simulator {
namespace {

constexpr double NsPerUs = 1e3;
constexpr double UsPerMs = 1e3;
constexpr double LongestMs = 24 * 3600 * 1e3; // after so long a wait the caller asks again

} // namespace

Timetable::Timetable(const QList<qint64> &timesUs, double speed) : times(timesUs), factor(speed) {}

void Timetable::start()
{
    if (!clock.isValid())
        clock.start();
}

quint64 Timetable::due() const
{
    if (factor <= 0)
        return static_cast<quint64>(times.size());
    const auto now = static_cast<qint64>(elapsedUs());
    const auto next = std::upper_bound(times.begin(), times.end(), now);
    return static_cast<quint64>(next - times.begin());
}

int Timetable::msUntil(quint64 number) const
{
    if (factor <= 0 || number == 0 || number > static_cast<quint64>(times.size()))
        return 0;
    const auto time = static_cast<double>(times.at(static_cast<qsizetype>(number - 1)));
    const double ms = (time - elapsedUs()) / factor / UsPerMs;
    return static_cast<int>(std::ceil(qBound(0.0, ms, LongestMs)));
}

double Timetable::elapsedUs() const
{
    return clock.isValid() ? static_cast<double>(clock.nsecsElapsed()) / NsPerUs * factor : 0;
}

} // namespace simulator
