// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include <QtNetwork/QHostAddress>

//! Both ends of an accepted connection, as the kernel knew them when it was accepted.
struct Endpoints
{
    QHostAddress peer;
    QHostAddress local;
    quint16 peerPort = 0;
    quint16 localPort = 0;
    // Belongs to the client id of a connection whose peer another connection has, too; otherwise 0.
    quint64 idNumber = 0;

    // Works also if the peer has already reset the connection.
    static Endpoints of(qintptr descriptor);
    // Address and port, for log lines.
    QString peerText() const;
};
