// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include <QtCore/QElapsedTimer>

namespace simulator {

/*!
    A steady rate of numbered events, the first at once; lateness does not add up.
*/
class Pace
{
public:
    // perSecond: 0 for no limit.
    explicit Pace(double perSecond) : rate(perSecond) {}

    // Later calls change nothing.
    void start();

    // Number of the last event that may have happened by now, from 1.
    quint64 due() const;

    // Milliseconds until the event of that number is due, rounded up; 0 if it is.
    int msUntil(quint64 number) const;

private:
    const double rate;
    QElapsedTimer clock;
};

} // namespace simulator
