// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include "simulator/schedule.h"

#include <QtCore/QElapsedTimer>

namespace simulator {

/*!
    A steady rate of numbered events. The first event is due at once.
*/
class Pace : public Schedule
{
public:
    // perSecond: 0 for no limit.
    explicit Pace(double perSecond) : rate(perSecond) {}

    void start() override;
    quint64 due() const override;
    int msUntil(quint64 number) const override;

    // An event that could have been earlier is due now. The pace of later ones begins with it.
    void delay(quint64 number);

private:
    const double rate;
    QElapsedTimer clock;
    quint64 first = 1; // event that is due when the clock starts
};

} // namespace simulator
