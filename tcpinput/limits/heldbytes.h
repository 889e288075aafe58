// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include "tcpinput/limits/bufferbudget.h"
#include "tcpinput/workers/locks.h"

#include <QtCore/QObject>

#include <atomic>
#include <functional>
#include <memory>

/*!
    How many bytes one connection holds: those that are not consumed, and those of its records that
    the host still has. The latest record shares its memory with the connection's buffer, so that
    only bytes that came after it count beside it.

    Also knows whether a record is on its way to the host's thread. Another offer is then not made
    but merged into the next one: a host that stands still would get the same bytes in record after
    record, and the memory for them would grow with their square.

    Thread: the client's; giveBack() and handedOver() in any.
    Owner:  shared by the client and its records.
    Locks:  one of its own. Under it, the client's thread is posted to.
*/
class HeldBytes
{
public:
    using Budget = std::shared_ptr<BufferBudget>;

    // total: not null.
    explicit HeldBytes(Budget total) : budget(std::move(total)) {}
    ~HeldBytes() { budget->add(-counted); }
    Q_DISABLE_COPY_MOVE(HeldBytes)

    BufferBudget &total() const { return *budget; }

    //! Both are called in the thread of the receiver, queued.
    struct Calls
    {
        std::function<void()> offerMerged; // a merged offer can be made
        std::function<void()> cameBack; // a record, while the connection is paused
    };
    void setReceiver(QObject *receiver, Calls calls);
    // To be called before the receiver is destroyed.
    void removeReceiver();

    // How many of the wanted bytes the connection may receive now; 0: none. They are reserved, with
    // those of earlier calls, until received() or receivedNothing() tells what has become of them.
    qint64 reserve(qint64 wanted);
    void receivedNothing();

    // Of the unconsumed bytes. consumed(): in any thread.
    void received(qint64 bytes);
    void consumed(qint64 bytes);

    // A record of all unconsumed bytes is made, of that size. Returns its number.
    quint64 lend(qint64 bytes);
    void giveBack(quint64 record, qint64 bytes);
    // Whether bytes were received after the latest record.
    bool hasUnlent() const;

    // False: an earlier record is still on its way; the offer is merged.
    bool beginHandOver();
    // The host has got the record.
    void handedOver();

    // In all.
    qint64 held() const { return heldNow.load(std::memory_order_relaxed); }
    qint64 unconsumed() const;
    // Since the beginning.
    quint64 consumedInAll() const;

    // While the connection does not read, its thread has to hear of each cut. In any thread.
    bool isPaused() const { return paused.load(std::memory_order_relaxed); }
    void setPaused(bool on);

private:
    void settle() REQUIRES_LOCK(mutex);

    const Budget budget;
    mutable Mutex mutex;
    qint64 inBuffer GUARDED_BY(mutex) = 0; // not consumed
    qint64 sinceLatest GUARDED_BY(mutex) = 0; // of them, received after the latest record
    qint64 inRecords GUARDED_BY(mutex) = 0;
    quint64 latest GUARDED_BY(mutex) = 0; // record
    bool latestIsOut GUARDED_BY(mutex) = false;
    quint64 all GUARDED_BY(mutex) = 0; // bytes that were ever consumed
    qint64 reserved GUARDED_BY(mutex) = 0; // see reserve(); in the budget
    bool onItsWay GUARDED_BY(mutex) = false; // a record
    bool merged GUARDED_BY(mutex) = false; // an offer
    QObject *receiver GUARDED_BY(mutex) = nullptr;
    Calls calls GUARDED_BY(mutex);
    qint64 counted = 0; // in the budget; under the mutex, except at the end
    std::atomic<qint64> heldNow = 0;
    std::atomic<bool> paused = false;
};
