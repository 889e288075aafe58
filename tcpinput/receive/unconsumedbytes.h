// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include "tcpinput/receive/clock.h"
#include "tcpinput/receive/inputbuffer.h"
#include "tcpinput/workers/locks.h"
#include "tcpinput/workers/workercounters.h"

#include <memory>
#include <optional>
#include <utility>
#include <variant>

class HeldBytes;
class Transport;
class WarmBlocks;

/*!
    The bytes that a connection has received and its host has not consumed yet, and their position
    in the connection's stream.

    A cut takes effect in the client's thread, some time after the host has asked for it. But to
    wake up that thread costs more than all the rest of a cut, and most cuts leave nothing that
    would be offered again. Such cuts are made ahead: at once, in the host's thread. Three rules
    keep that invisible. A cut never overtakes another cut. A cut that leaves more than
    RemainderBytes is never made ahead. A cut never overtakes a read: after each read,
    leftByRecentCut() tells how many bytes were left by a cut that would still have been on its way.

    Thread: the client's; size() and cutAhead() also from any other.
    Owner:  the client, as a member.
    Locks:  one of its own, held during each call.
*/
class UnconsumedBytes
{
public:
    // A cut that leaves more than this makes the host a new offer.
    static constexpr qsizetype RemainderBytes = 20;

    //! What an offer is made of: all bytes, and the position of the first one in the stream.
    struct Snapshot
    {
        QByteArray data;
        quint64 position = 0;
    };

    // Counts what comes and goes for the limits. Call before the first read. Default: nothing.
    void setHeld(std::shared_ptr<HeldBytes> value) { held = std::move(value); }

    // Counts there how many bytes were read and consumed. Likewise. Default: nobody reads it.
    void setCounters(WorkerCounters &value) { counters = &value; }

    // Large blocks come from there. Likewise. value: outlives this. Default: null.
    void setBlocks(WarmBlocks &value);
    QByteArray emptyBlock(qsizetype size) const;

    qsizetype size() const;

    Snapshot copy();
    // Takes all bytes.
    Snapshot takeAll();

    // Reads count bytes, which are available. Returns the size afterwards, or 0 if nothing came.
    qsizetype readFrom(Transport &transport, qsizetype count);

    //! So many bytes from the front. 0 or less cuts nothing, more than there are cuts all.
    struct Length
    {
        qsizetype bytes;
    };
    //! All bytes before that position of the stream.
    struct Position
    {
        quint64 end;
    };
    using Cut = std::variant<Length, Position>;

    // True: done. False: the caller must post the cut to the client's thread, which then calls
    // cut(), and at last endPostedCut(). inClientsThread: whether the caller runs in that thread.
    bool cutAhead(const Cut &asked, bool inClientsThread);
    // Returns how many bytes are left. Nothing if all before the position was cut already.
    std::optional<qsizetype> cut(const Cut &asked);
    void endPostedCut();

    // To be called after each read. 0: there was no such cut.
    qsizetype leftByRecentCut();

private:
    void cutFront(qsizetype length) REQUIRES_LOCK(mutex);
    void consumed(qsizetype bytes);
    bool isDone(const Cut &asked) const REQUIRES_LOCK(mutex);
    qsizetype lengthOf(const Cut &asked) const REQUIRES_LOCK(mutex);

    std::shared_ptr<HeldBytes> held; // set once, like counters
    WorkerCounters *counters = &WorkerCounters::unread();
    mutable Mutex mutex;
    InputBuffer buffer GUARDED_BY(mutex);
    quint64 bytesCut GUARDED_BY(mutex) = 0; // in all
    // On their way to the client's thread; later cuts must follow them.
    int postedCuts GUARDED_BY(mutex) = 0;
    std::optional<Clock::Steady> recentCut GUARDED_BY(mutex); // made ahead, nothing done since
};
