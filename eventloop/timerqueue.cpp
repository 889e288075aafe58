// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "eventloop/timerqueue.h"

#include <algorithm>

using namespace std::chrono_literals;

namespace {
// Each step divides all larger ones, so that timers of different intervals fall due together, too.
constexpr TimerQueue::Duration GridSteps[] = {1s, 500ms, 100ms, 50ms, 10ms, 5ms, 1ms};
constexpr int CoarseFraction = 20; // a coarse timer may be a twentieth of its interval late

// Zero: no grid.
TimerQueue::Duration gridStep(const TimerQueue::Timer &timer)
{
    if (timer.type == Qt::PreciseTimer || timer.interval == 0ns)
        return 0ns;
    if (timer.type == Qt::VeryCoarseTimer)
        return GridSteps[0];
    for (const TimerQueue::Duration step : GridSteps) {
        if (step <= timer.interval / CoarseFraction)
            return step;
    }
    return 0ns;
}

// Saturates at TimePoint::max().
TimerQueue::TimePoint sum(TimerQueue::TimePoint time, TimerQueue::Duration duration)
{
    return duration < TimerQueue::TimePoint::max() - time ? time + duration
                                                          : TimerQueue::TimePoint::max();
}

TimerQueue::TimePoint roundUp(TimerQueue::TimePoint time, TimerQueue::Duration step)
{
    if (step == 0ns)
        return time;
    const TimerQueue::Duration excess = time.time_since_epoch() % step;
    return excess == 0ns ? time : sum(time, step - excess);
}

std::pair<quintptr, int> objectKey(const QObject *object, int id)
{
    return {reinterpret_cast<quintptr>(object), id};
}
} // namespace

void TimerQueue::add(const Timer &timer, TimePoint now)
{
    Entry entry;
    static_cast<Timer &>(entry) = timer;
    entry.due = sum(now, timer.interval);

    const auto [position, added] = entries.emplace(timer.id, entry);
    Q_ASSERT(added);
    schedule(position->second);
    idsByObject.insert(objectKey(timer.object, timer.id));
}

bool TimerQueue::remove(int id)
{
    const auto position = entries.find(id);
    if (position == entries.end())
        return false;

    erase(position);
    return true;
}

bool TimerQueue::removeAll(const QObject *object)
{
    bool removed = false;
    auto next = idsByObject.lower_bound(objectKey(object, 0));
    while (next != idsByObject.end() && next->first == objectKey(object, 0).first) {
        erase(entries.find((next++)->second));
        removed = true;
    }
    return removed;
}

std::vector<TimerQueue::Timer> TimerQueue::timersOf(const QObject *object) const
{
    std::vector<Timer> timers;
    auto next = idsByObject.lower_bound(objectKey(object, 0));
    for (; next != idsByObject.end() && next->first == objectKey(object, 0).first; ++next)
        timers.push_back(entries.at(next->second));
    return timers;
}

std::optional<TimerQueue::Duration> TimerQueue::remaining(int id, TimePoint now) const
{
    const auto position = entries.find(id);
    if (position == entries.end())
        return std::nullopt;
    return std::max<Duration>(position->second.deadline->first.first - now, 0ns);
}

std::optional<TimerQueue::TimePoint> TimerQueue::nextDeadline() const
{
    // Skips at most one timer per nested event loop.
    for (const auto &[deadline, entry] : deadlines) {
        if (!entry->delivering)
            return deadline.first;
    }
    return std::nullopt;
}

int TimerQueue::deliverDue(TimePoint now, const Deliver &deliver)
{
    // A deadline that is set from here on waits for the next call: the next beat of a zero-interval
    // timer, for example. It sorts behind all that are due, since no deadline is set before now.
    const quint64 last = lastNumber;
    int beats = 0;
    while (!deadlines.empty()) {
        const auto &[deadline, first] = *deadlines.begin();
        if (deadline.first > now || deadline.second > last)
            break;

        Entry &entry = *first;
        entry.due = sum(entry.due, entry.interval);
        if (entry.due < now)
            entry.due = sum(now, entry.interval);
        deadlines.erase(entry.deadline);
        schedule(entry);

        if (entry.interval > 0ns)
            ++beats;
        if (entry.delivering)
            continue;

        entry.delivering = true;
        const int id = entry.id;
        deliver(id, entry.object);
        // The timer may be gone now. A new one with its id is not being delivered either.
        const auto position = entries.find(id);
        if (position != entries.end())
            position->second.delivering = false;
    }
    return beats;
}

void TimerQueue::schedule(Entry &entry)
{
    const Deadline deadline(roundUp(entry.due, gridStep(entry)), ++lastNumber);
    entry.deadline = deadlines.emplace(deadline, &entry).first;
}

void TimerQueue::erase(Entries::iterator position)
{
    const Entry &entry = position->second;
    deadlines.erase(entry.deadline);
    idsByObject.erase(objectKey(entry.object, entry.id));
    entries.erase(position);
}
