// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include "plugin/kit/offerconsumer.h"

#include <QtCore/QByteArrayView>
#include <QtCore/QString>
#include <QtCore/QtGlobal>

namespace inputkit {

/*!
    Sees what connections bring, as it is read: every byte once, in order, and the end. To record
    it, or to keep figures of it.

    Thread: the one that reads: a session's own, also if its handlers are called in another one.
    Owner:  the caller; it outlives what reads.
*/
class TrafficObserver
{
public:
    TrafficObserver() = default;
    virtual ~TrafficObserver() = default;
    Q_DISABLE_COPY_MOVE(TrafficObserver)

    // The messages in these bytes have been handed out before. origin: at least connection, source,
    // peer and port. position: how many of the connection's bytes come before; 0: it is new. bytes:
    // not empty; valid until the function returns.
    virtual void read(const Origin &origin, quint64 position, QByteArrayView bytes) = 0;
    // reason: as subids::end(). position: behind the last byte; 0: the connection has brought none.
    virtual void ended(const Origin &origin, const QString &reason, quint64 position) = 0;
};

} // namespace inputkit
