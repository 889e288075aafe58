// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include "logtap.h"

#include <pthread.h>
#include <sched.h>

#include <algorithm>
#include <fstream>
#include <vector>

/*!
    How long the calling thread has been held up since it began. Either it was ready to run but had
    no processor, as the kernel tells, or it waited for others that wrote a line.
*/
inline std::chrono::nanoseconds timeHeldUp()
{
    std::ifstream file("/proc/thread-self/schedstat");
    qint64 ran = 0;
    qint64 waited = 0;
    file >> ran >> waited;
    return std::chrono::nanoseconds(waited) + LogTap::waitedForOthers();
}

/*!
    Notices when a processor stands still: no thread's waiting time shows that. On each processor a
    thread does nothing but sleep briefly, and measures how late it wakes up.

    Thread: any.
    Locks:  mutex.
*/
class LoadMeter
{
public:
    LoadMeter()
    {
        cpu_set_t allowed;
        CPU_ZERO(&allowed);
        sched_getaffinity(0, sizeof allowed, &allowed);
        for (std::size_t processor = 0; processor < CPU_SETSIZE; ++processor) {
            if (CPU_ISSET(processor, &allowed))
                threads.emplace_back([this, processor] { measure(processor); });
        }
    }
    ~LoadMeter()
    {
        over = true;
        for (std::thread &thread : threads)
            thread.join();
    }
    Q_DISABLE_COPY_MOVE(LoadMeter)

    // The longest noted delay that lies at least in part between the two times.
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

    // To be called by a thread that was to run at due and ran late. late: by how much.
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

    void measure(std::size_t processor)
    {
        cpu_set_t own;
        CPU_ZERO(&own);
        CPU_SET(processor, &own);
        pthread_setaffinity_np(pthread_self(), sizeof own, &own);
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
