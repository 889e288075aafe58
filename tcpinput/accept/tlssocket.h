// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include "tcpinput/connection/endpoints.h"

#include <QtNetwork/QSslSocket>

/*!
    The server's end of a TLS connection: a QSslSocket that can be told what Qt does not know.

    Thread: the one it lives in.
    Owner:  the caller.
*/
class TlsSocket final : public QSslSocket
{
public:
    using QSslSocket::setErrorString; // for ends that only the server knows of

    // A reset before the socket is made, or a disconnection before its client is, leaves Qt without
    // a peer: all such clients would share one id.
    void restoreEndpoints(const Endpoints &known)
    {
        if (peerAddress().isNull()) {
            setPeerAddress(known.peer);
            setPeerPort(known.peerPort);
        }
        if (localAddress().isNull()) {
            setLocalAddress(known.local);
            setLocalPort(known.localPort);
        }
    }
};
