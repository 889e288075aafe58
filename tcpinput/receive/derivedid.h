// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include "tcpinput/connection/clientid.h"
#include "tcpinput/receive/link.h"
#include "tcpinput/workers/locks.h"

#include <QtCore/QString>

#include <utility>

/*!
    The id of a client. The one that its task has formed has the address on which the server
    listens, which may be a wildcard; the first read makes the real one, which the socket knows.

    Thread: the client's; copy() from any.
    Owner:  the client, as a member.
    Locks:  one of its own.
*/
class DerivedId
{
public:
    explicit DerivedId(const QString &given = {}) : id(given) {}

    // Only the client's thread writes, so it needs no lock here.
    QString &inThread() TCPINPUT_ANNOTATE(no_thread_safety_analysis) { return id; }
    QString copy() const
    {
        const MutexLocker locker(mutex);
        return id;
    }

    // Belongs to the id, see clientId(). Call before derive(). Default: 0.
    void setNumber(quint64 value) { number = value; }

    bool isDerived() const { return derived; }
    // Returns the former id.
    QString derive(const Link::Names &from)
    {
        const MutexLocker locker(mutex);
        derived = true;
        return std::exchange(
                id, clientId(from.local, from.localPort, from.peer, from.peerPort, number));
    }

private:
    mutable Mutex mutex;
    QString id GUARDED_BY(mutex);
    quint64 number = 0;
    bool derived = false;
};
