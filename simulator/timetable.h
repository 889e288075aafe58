// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include "simulator/schedule.h"

#include <QtCore/QElapsedTimer>
#include <QtCore/QList>

namespace simulator {

/*!
    Events at given times, played faster or as fast as it goes.
*/
class Timetable : public Schedule
{
public:
    // timesUs: of the events, ascending, in microseconds after the start. speed: how many times as
    // fast; 0: every event is due at once.
    Timetable(const QList<qint64> &timesUs, double speed);

    void start() override;
    quint64 due() const override;
    int msUntil(quint64 number) const override; // 0 if there is no such event

private:
    double elapsedUs() const; // of the timetable's time

    const QList<qint64> times;
    const double factor;
    QElapsedTimer clock;
};

} // namespace simulator
