// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include <QtCore/QBasicTimer>
#include <QtCore/QObject>

#include <algorithm>
#include <functional>
#include <utility>

/*!
    Gives memory back to the system when many connections have closed. malloc() keeps what they have
    freed: somewhere behind it lies something that is in use.

    It looks some seconds after half of a thread's connections have gone, if these are many. A few
    connections that come and go cost nothing.

    Thread: its creator's.
    Owner:  the task.
*/
class MemoryReturn : public QObject
{
public:
    // For fewer closed connections it is not worth it: some megabytes.
    static constexpr qsizetype LeastClosed = 250;
    static constexpr int DelayMs = 5000;

    // Both are replaced in tests. giveBackMemory: malloc_trim(), where there is one.
    explicit MemoryReturn(std::function<void()> giveBackMemory = freeUnused, int ms = DelayMs)
        : giveBack(std::move(giveBackMemory)),
          delayMs(ms)
    {}

    // To be called after each change of the number of connections.
    void count(qsizetype connections)
    {
        open = connections;
        most = std::max(most, open);
        if (isWorthIt() && !timer.isActive())
            timer.start(delayMs, this);
    }

protected:
    void timerEvent(QTimerEvent *event) override;

private:
    static void freeUnused();
    bool isWorthIt() const { return most - open >= std::max(LeastClosed, most / 2); }

    const std::function<void()> giveBack;
    const int delayMs;
    QBasicTimer timer;
    qsizetype open = 0;
    qsizetype most = 0; // since memory was given back
};
