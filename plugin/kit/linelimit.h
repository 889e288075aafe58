// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include <QtCore/QElapsedTimer>

#include <chrono>
#include <utility>

namespace inputkit {

/*!
    Limits the log lines of one kind: a bad device may cause any number of them. In each interval
    the first few lines are written. The others are counted, and their number is reported when the
    interval is over.

    Thread: any one.
*/
class LineLimit
{
public:
    explicit LineLimit(int mostLines = 10,
                       std::chrono::milliseconds length = std::chrono::minutes(1))
        : most(mostLines),
          interval(length)
    {
        since.start();
    }

    // Whether the next line may be written. If not, it counts as missed.
    bool allows()
    {
        if (lines < most) {
            ++lines;
            return true;
        }
        ++missed;
        return false;
    }

    // Begins the next interval if this one is over, or if atOnce. Returns how many lines the ended
    // interval has missed; 0 if none has ended.
    qint64 takeMissed(bool atOnce)
    {
        if (!atOnce && !since.hasExpired(interval.count()))
            return 0;
        since.restart();
        lines = 0;
        return std::exchange(missed, 0);
    }

private:
    const int most;
    const std::chrono::milliseconds interval;
    QElapsedTimer since; // the beginning of the interval
    int lines = 0;
    qint64 missed = 0;
};

} // namespace inputkit
