// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include "logtap.h"

#include <algorithm>
#include <vector>

/*!
    Notices when the machine lets threads wait for a processor: threads that do nothing but sleep
    briefly tell how late they woke up.

    Thread: any.
    Locks:  mutex.
*/
class LoadMeter
{
public:
    LoadMeter()
    {
        const unsigned count = std::max(1U, std::thread::hardware_concurrency());
        for (unsigned i = 0; i < count; ++i)
            threads.emplace_back([this] { measure(); });
    }
    ~LoadMeter()
    {
        over = true;
        for (std::thread &thread : threads)
            thread.join();
    }
    Q_DISABLE_COPY_MOVE(LoadMeter)

    // The longest delay of a thread that was to run between the two.
    Clock::duration longestDelay(Clock::time_point from, Clock::time_point to) const
    {
        const QMutexLocker locker(&mutex);
        Clock::duration longest{};
        for (const Delay &delay : delays) {
            if (delay.due < to && delay.due + delay.length > from)
                longest = std::max(longest, delay.length);
        }
        return longest;
    }

    // A thread that measures itself was to run at a time, and did later.
    void note(Clock::time_point due, Clock::duration late)
    {
        if (late < Noticeable)
            return;
        const QMutexLocker locker(&mutex);
        delays.push_back({due, late});
    }

private:
    static constexpr std::chrono::milliseconds Nap{4};
    static constexpr std::chrono::milliseconds Noticeable{3};

    struct Delay
    {
        Clock::time_point due;
        Clock::duration length;
    };

    void measure()
    {
        while (!over) {
            const auto due = Clock::now() + Nap;
            std::this_thread::sleep_until(due);
            note(due, Clock::now() - due);
        }
    }

    std::atomic<bool> over{false};
    mutable QMutex mutex;
    std::vector<Delay> delays; // guarded by mutex
    std::vector<std::thread> threads;
};
