// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include <QtCore/QString>
#include <QtCore/QStringBuilder>

// "tcp2:<local address>:<local port>-<peer address>:<peer port>": the key of a task's registry and
// the routing id "client" of every record. IPv6 addresses stand without brackets. number: not 0
// where another connection would have the same id; "#<number>" then follows.
inline QString clientId(const QString &localAddress, quint16 localPort, const QString &peerAddress,
                        quint16 peerPort, quint64 number = 0)
{
    const QString id = QLatin1String("tcp2:") % localAddress % QLatin1Char(':')
            % QString::number(localPort) % QLatin1Char('-') % peerAddress % QLatin1Char(':')
            % QString::number(peerPort);
    return number == 0 ? id : id % QLatin1Char('#') % QString::number(number);
}
