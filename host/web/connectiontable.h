// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include "host/web/connectionrow.h"
#include "plugin/kit/trafficobserver.h"

namespace host {

/*!
    The open connections that have brought bytes, as an observer of what is read. Needs "offsets"
   and "ends": without them it stays empty.

    Thread: the one that reads.
    Owner:  the caller.
*/
class ConnectionTable : public inputkit::TrafficObserver
{
public:
    // enable: noteSafe() tells what is safe. Default: what is read is safe.
    void setAcknowledged(bool enable) { acknowledged = enable; }

    void read(const inputkit::Origin &origin, quint64 position, QByteArrayView bytes) override;
    void ended(const inputkit::Origin &origin, const QString &reason, quint64 position) override;
    // As Sink::safe().
    void noteSafe(quint64 connection, quint64 end);

    // Shares its memory; the next change then copies all rows once.
    ConnectionRows rows() const { return table; }

private:
    ConnectionRows table;
    bool acknowledged = false;
};

} // namespace host
