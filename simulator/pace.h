// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include <QtCore/QElapsedTimer>

namespace simulator {

/*!
    A steady rate of numbered events. The first event is due at once. A late event does not make
    later ones late.
*/
class Pace
{
public:
    // perSecond: 0 for no limit.
    explicit Pace(double perSecond) : rate(perSecond) {}

    // Starts the clock. Later calls change nothing.
    void start();

    // Number of the last event that is due by now, from 1.
    quint64 due() const;

    // Milliseconds until the event of that number is due, rounded up; 0 if it is due already.
    int msUntil(quint64 number) const;

private:
    const double rate;
    QElapsedTimer clock;
};

} // namespace simulator
