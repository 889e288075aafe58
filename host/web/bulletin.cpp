// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "host/web/bulletin.h"

#include <QtCore/QDeadlineTimer>

#include <utility>

namespace host {

// What was there before is destroyed without the lock: it may be large.
void Bulletin::publish(Snapshot snapshot)
{
    SharedSnapshot next = std::make_shared<const Snapshot>(std::move(snapshot));
    const QMutexLocker locker(&guard);
    past.note(*next);
    latest.swap(next);
}

void Bulletin::publish(ConnectionRows rows)
{
    SharedRows next = std::make_shared<const ConnectionRows>(std::move(rows));
    const QMutexLocker locker(&guard);
    latestRows.swap(next);
    rowsTaken = Clock::now();
    hasRows = true;
    isAsked = false;
    answered.wakeAll();
}

Bulletin::SharedSnapshot Bulletin::snapshot() const
{
    const QMutexLocker locker(&guard);
    return latest;
}

History::Samples Bulletin::history() const
{
    const QMutexLocker locker(&guard);
    return past.samples();
}

Bulletin::SharedRows Bulletin::rows()
{
    QMutexLocker locker(&guard);
    if (isAsked || (hasRows && Clock::now() - rowsTaken < RowsInterval))
        return latestRows;
    isAsked = true;
    locker.unlock();
    ask();
    locker.relock();
    const QDeadlineTimer deadline(MostRowsWait);
    while (isAsked) {
        if (!answered.wait(&guard, deadline))
            break;
    }
    return latestRows;
}

} // namespace host
