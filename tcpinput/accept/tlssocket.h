// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include "tcpinput/connection/endpoints.h"

#include <QtNetwork/QSslSocket>

#include <utility>

/*!
    The server's end of a TLS connection: a QSslSocket whose endpoints and error text the server can
    set, and which knows its peer for as long as it lives.

    Thread: the one it lives in.
    Owner:  the caller.
*/
class TlsSocket final : public QSslSocket
{
public:
    explicit TlsSocket(Endpoints accepted) : known(std::move(accepted)) {}

    using QSslSocket::setErrorString; // for failures that only the server detects

    // Also when peerAddress() has none any more.
    QString peerText() const { return known.peerText(); }

    // Of a connection that a proxy passes on: Qt knows the proxy only.
    void replacePeer()
    {
        setPeerAddress(known.peer);
        setPeerPort(known.peerPort);
    }

    // Qt knows no peer if the connection was reset before the socket was made, or ended before its
    // client was made. All such clients would share one id.
    void restoreEndpoints()
    {
        if (peerAddress().isNull())
            replacePeer();
        if (localAddress().isNull()) {
            setLocalAddress(known.local);
            setLocalPort(known.localPort);
        }
    }

private:
    const Endpoints known;
};
