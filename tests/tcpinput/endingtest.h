// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include "tests/tcpinput/connectedclient.h"

namespace endingtest {

inline QByteArray bytes(int size)
{
    return QByteArray(size, 'x');
}

inline QString closingLine(const QString &id, qint64 received, qint64 reads)
{
    return QStringLiteral("D: TcpClient: closing connection %1 (received %2 bytes, %3 msgs)")
            .arg(id)
            .arg(received)
            .arg(reads);
}

// The lines of a client's end, from the last offer on, if it makes one.
inline QStringList endOf(const QString &id, int lastOffer, qint64 received, qint64 reads)
{
    QStringList lines;
    if (lastOffer > 0)
        lines += QStringLiteral("offer of %1 bytes by %2").arg(lastOffer).arg(id);
    lines += closingLine(id, received, reads);
    lines += QStringLiteral("disconnected ") + id;
    return lines;
}

inline QStringList firstRead(const ConnectedClient &connection, const QString &given)
{
    return {QStringLiteral("D: TCP READ: %1:%2 (%3:%4)")
                    .arg(ConnectedClient::localAddress())
                    .arg(connection.localPort)
                    .arg(ConnectedClient::peerAddress())
                    .arg(connection.peerPort),
            QStringLiteral("idChanged %1 to %2").arg(given, connection.derivedId())};
}

} // namespace endingtest
