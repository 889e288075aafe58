// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include <QtCore/QtGlobal>

#include <array>
#include <atomic>

/*!
    What one worker has done. Without locks and without locked instructions, but for the one count
    that has several writers: counting costs next to nothing.

    Thread: the worker's; consumed: any. Reading: any.
    Owner:  shared by the worker's task, which outlives its clients, and the plugin.
*/
struct alignas(64) WorkerCounters // a cache line of its own: other workers write beside it
{
    //! A count that one thread writes.
    class Count
    {
    public:
        void add(quint64 more) { value.store(read() + more, std::memory_order_relaxed); }
        quint64 read() const { return value.load(std::memory_order_relaxed); }

    private:
        std::atomic<quint64> value = 0;
    };
    static constexpr std::size_t Reasons = 6;

    // For whoever counts for nobody. Never read.
    static WorkerCounters &unread()
    {
        static WorkerCounters counters;
        return counters;
    }

    Count adopted; // connections, as soon as the worker comes for them
    Count missed; // of these, those that were not there
    std::array<Count, Reasons> ended; // by EndReason
    Count bytes;
    Count reads;
    Count offers;
    std::atomic<quint64> consumed = 0; // bytes
    std::atomic<bool> isOver = false; // the worker has gone: nobody counts here any more
};
