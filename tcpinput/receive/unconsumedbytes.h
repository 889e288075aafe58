// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include "tcpinput/receive/clock.h"
#include "tcpinput/receive/inputbuffer.h"
#include "tcpinput/workers/locks.h"

#include <optional>

class Transport;

/*!
    What a connection has received and its host has not consumed yet, and where in the connection's
    stream that lies.

    A cut takes effect in the client's thread, some time after the host has asked for it. But most
    cuts leave nothing that would be offered again. To wake up the thread for those costs more than
    all the rest of a cut, so they are made ahead: at once, in the host's thread. Three rules keep
    that from being seen. No cut overtakes another one. A cut that leaves more than a remainder is
    never made ahead. And none overtakes a read: behind a read, leftByRecentCut() tells what a cut
    has left that would still have been on its way.

    Thread: the client's; size(), cutAhead(), cutAheadTo() also from any other.
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

    qsizetype size() const;

    Snapshot copy();
    // Leaves nothing.
    Snapshot takeAll();

    // Reads that many bytes, which are available. The size afterwards, or 0 if nothing came.
    qsizetype readFrom(Transport &transport, qsizetype count);

    // True: that is all. False: the caller has to post the cut to the client's thread, which then
    // calls cut() or cutTo(), and endPostedCut() at last. inClientsThread: the caller is.
    bool cutAhead(qsizetype length, bool inClientsThread);
    bool cutAheadTo(quint64 position, bool inClientsThread);

    // How many bytes are left. A length of 0 or less cuts nothing, one beyond the size cuts all.
    qsizetype cut(qsizetype length);
    // Up to that position. Nothing if it is at or before the first byte, and cuts nothing then.
    std::optional<qsizetype> cutTo(quint64 position);
    void endPostedCut();

    // To be called behind each read. 0: there was no such cut.
    qsizetype leftByRecentCut();

private:
    bool cutAheadLocked(qsizetype length, bool inClientsThread) REQUIRES_LOCK(mutex);
    qsizetype cutLocked(qsizetype length) REQUIRES_LOCK(mutex);
    qsizetype lengthTo(quint64 position) const REQUIRES_LOCK(mutex);

    mutable Mutex mutex;
    InputBuffer buffer GUARDED_BY(mutex);
    quint64 bytesCut GUARDED_BY(mutex) = 0; // in all
    // On their way to the client's thread: those that follow stay behind them.
    int postedCuts GUARDED_BY(mutex) = 0;
    std::optional<Clock::Steady> recentCut GUARDED_BY(mutex); // made ahead, and nothing done since
};
