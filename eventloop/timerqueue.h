// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include <QtCore/qnamespace.h>

#include <chrono>
#include <functional>
#include <map>
#include <optional>
#include <set>
#include <unordered_map>
#include <utility>
#include <vector>

class QObject;

/*!
    The running timers of one thread, in the order in which they fall due.

    Adding, removing and restarting a timer cost O(log n). A timer that is not precise is due at the
    first boundary of a grid after its interval is over. So thousands of equal time-outs fall due in
    a few groups, and one wake-up of the thread serves a whole group.

    A pure data structure: it reads no clock and sends no event.

    Thread: that of its event dispatcher.
    Owner:  the event dispatcher; the queue owns no object.
    Locks:  none.
*/
class TimerQueue
{
public:
    using Clock = std::chrono::steady_clock; // monotonic: a changed system time moves no timer
    using TimePoint = Clock::time_point;
    using Duration = Clock::duration;

    struct Timer
    {
        int id = 0;
        Duration interval{}; // zero: due in every turn of the event loop
        Qt::TimerType type = Qt::CoarseTimer;
        QObject *object = nullptr;
    };
    using Deliver = std::function<void(int id, QObject *object)>;

    // The id must not be in use. The first beat comes one interval after now.
    void add(const Timer &timer, TimePoint now);

    // False if there is no such timer.
    bool remove(int id);
    bool removeAll(const QObject *object);

    // As they were added, in the order of their ids.
    std::vector<Timer> timersOf(const QObject *object) const;

    // Time until the timer's next beat; zero if that is overdue, nothing if there is no such timer.
    std::optional<Duration> remaining(int id, TimePoint now) const;

    // When to wake up; nothing if no timer can fire. Skips timers whose delivery is on the stack:
    // they must not keep a nested event loop awake.
    std::optional<TimePoint> nextDeadline() const;

    // Calls deliver once for each timer that is due at now when the call begins, earliest first.
    // Skips missed beats, and timers whose delivery is on the stack. deliver may change the queue
    // in any way, and may call deliverDue(). Returns the number of beats, without those of
    // zero-interval timers: they do not make an event loop busy.
    int deliverDue(TimePoint now, const Deliver &deliver);

private:
    struct Entry;
    using Deadline = std::pair<TimePoint, quint64>; // the number keeps equal ones in order
    using Deadlines = std::map<Deadline, Entry *>;

    struct Entry : Timer
    {
        TimePoint due{}; // exact; the deadline is this, rounded up to the grid
        Deadlines::iterator deadline{};
        bool delivering = false;
    };
    using Entries = std::unordered_map<int, Entry>; // the addresses of its elements are stable

    void schedule(Entry &entry);
    void erase(Entries::iterator position);

    Entries entries; // by id
    Deadlines deadlines; // one for each entry
    std::set<std::pair<quintptr, int>> idsByObject; // one for each entry
    quint64 lastNumber = 0; // of a deadline
};
