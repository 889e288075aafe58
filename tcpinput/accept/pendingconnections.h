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
    The connections that a server has accepted and that no worker has taken yet, in the order of
    their acceptance. A connection can be reserved for the thread that it was dealt to: in a burst
    the threads come for theirs in any order, and each gets its own. Once one has been reserved only
    reserved ones can be taken: a thread that comes too late, for a connection that was closed
    since, does not get one that is about to be dealt to another.

    Thread: any.
    Owner:  the server, as a member; what a T holds is the taker's to free.
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

    // Reserves the oldest connection that is not reserved; nothing if there is none.
    void reserveFor(const QThread *taker)
    {
        const MutexLocker locker(mutex);
        dealt = true;
        if (reserved < queue.size())
            queue[reserved++].taker = taker;
    }

    // The oldest connection that is reserved for the calling thread; as long as none was ever
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

    // Takes all, whoever they are reserved for.
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
        const QThread *taker; // only compared
    };

    mutable Mutex mutex;
    std::deque<Entry> queue GUARDED_BY(mutex);
    std::size_t reserved GUARDED_BY(mutex) = 0; // how many of the queue's first entries are
    bool dealt GUARDED_BY(mutex) = false; // reserveFor() was called
};
