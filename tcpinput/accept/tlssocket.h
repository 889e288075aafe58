// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include "tcpinput/connection/endpoints.h"

#include <QtNetwork/QSslSocket>

/*!
    The server's end of a TLS connection: a QSslSocket whose endpoints and error text the server can
    set.

    Thread: the one it lives in.
    Owner:  the caller.
*/
class TlsSocket final : public QSslSocket
{
public:
    using QSslSocket::setErrorString; // for failures that only the server detects

    // Of a connection that a proxy passes on: Qt knows the proxy only.
    void replacePeer(const Endpoints &known)
    {
        setPeerAddress(known.peer);
        setPeerPort(known.peerPort);
    }

    // Qt knows no peer if the connection was reset before the socket was made, or has ended. All
    // clients of such connections would share one id, and no log line could name the peer.
    void restoreEndpoints(const Endpoints &known)
    {
        if (peerAddress().isNull())
            replacePeer(known);
        if (localAddress().isNull()) {
            setLocalAddress(known.local);
            setLocalPort(known.localPort);
        }
    }
};
