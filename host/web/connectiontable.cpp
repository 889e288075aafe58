// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "host/web/connectiontable.h"

#include <QtCore/QDateTime>

namespace host {

void ConnectionTable::read(const inputkit::Origin &origin, quint64 position, QByteArrayView bytes)
{
    ConnectionRow &row = table[origin.connection];
    row.lastMs = QDateTime::currentMSecsSinceEpoch();
    row.bytes = position + static_cast<quint64>(bytes.size());
    if (!acknowledged)
        row.safe = row.bytes;
    if (row.sinceMs != 0)
        return;
    row.peer = origin.peer;
    row.port = origin.port;
    row.sinceMs = row.lastMs;
}

void ConnectionTable::ended(const inputkit::Origin &origin, const QString &, quint64)
{
    table.remove(origin.connection);
}

void ConnectionTable::noteSafe(quint64 connection, quint64 end)
{
    const auto row = table.find(connection);
    if (row != table.end())
        row->safe = end;
}

} // namespace host
