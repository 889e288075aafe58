// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include <QtCore/QtGlobal>

namespace simulator {

/*!
    When numbered events are due. A late event does not make later ones late.

    Thread: one at a time.
*/
class Schedule
{
public:
    Schedule() = default;
    virtual ~Schedule() = default;
    Q_DISABLE_COPY_MOVE(Schedule)

    // Starts the clock. Later calls change nothing.
    virtual void start() = 0;

    // Number of the last event that is due by now, from 1. 0: none.
    virtual quint64 due() const = 0;

    // Milliseconds until the event of that number is due, rounded up, and no more than a day; 0 if
    // it is due already.
    virtual int msUntil(quint64 number) const = 0;
};

} // namespace simulator
