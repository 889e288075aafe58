// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include "tcpinput/workers/locks.h"

#include <QtCore/QThread>

#include <algorithm>
#include <deque>
#include <optional>
#include <utility>

/*!
    The connections that a server has accepted and no worker has taken yet, in the order of their
    acceptance.

    A connection can be reserved for the thread that it was dealt to. In a burst, threads come for
    theirs in any order, and each gets its own. Once any was reserved, only reserved ones
    can be taken. Otherwise a thread that comes too late, after its connection was closed, would get
    one that is about to be dealt to another thread.

    Thread: any.
    Owner:  the server, as a member. What a T holds belongs to its taker.
    Locks:  mutex; nothing is called under it.
*/
template<class T>
class PendingConnections
{
public:
    void add(T connection)
    {
        const MutexLocker locker(mutex);
        queue.push_back({std::move(connection), nullptr});
    }

    // Reserves the oldest connection that is not reserved. Does nothing if there is none.
    void reserveFor(const QThread *taker)
    {
        const MutexLocker locker(mutex);
        dealt = true;
        if (reserved < queue.size())
            queue[reserved++].taker = taker;
    }

    // Takes the oldest connection that is reserved for the calling thread; as long as none was ever
    // reserved, the oldest of all. Nothing if there is none.
    std::optional<T> take()
    {
        const MutexLocker locker(mutex);
        const QThread *taker = QThread::currentThread();
        const auto free = queue.begin() + static_cast<std::ptrdiff_t>(reserved);
        auto found = std::find_if(queue.begin(), free,
                                  [taker](const Entry &entry) { return entry.taker == taker; });
        if (found == queue.end() || (found == free && dealt))
            return std::nullopt;
        if (found != free)
            --reserved;
        T connection = std::move(found->connection);
        queue.erase(found);
        return connection;
    }

    // Takes all, reserved or not.
    std::deque<T> takeAll()
    {
        const MutexLocker locker(mutex);
        std::deque<T> all;
        for (Entry &entry : queue)
            all.push_back(std::move(entry.connection));
        queue.clear();
        reserved = 0;
        return all;
    }

    qsizetype size() const
    {
        const MutexLocker locker(mutex);
        return static_cast<qsizetype>(queue.size());
    }

private:
    struct Entry
    {
        T connection;
        const QThread *taker; // compared, never dereferenced
    };

    mutable Mutex mutex;
    std::deque<Entry> queue GUARDED_BY(mutex);
    std::size_t reserved GUARDED_BY(mutex) = 0; // number of reserved entries, the first of queue
    bool dealt GUARDED_BY(mutex) = false; // reserveFor() was called
};
