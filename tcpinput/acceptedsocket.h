// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include "tcpinput/endpoints.h"

//! What is known of a connection from its acceptance on, before it has a socket or a client.
struct Acceptance
{
    // number: of the connection, unique in the process and never used again; 0 if its offers are
    // not stamped with positions.
    static Acceptance of(qintptr descriptor, bool stamped);

    Endpoints endpoints;
    quint64 number = 0;
};

//! The part of an accepted socket that does not depend on its kind.
class AcceptedConnection
{
public:
    explicit AcceptedConnection(const Acceptance &known) : acceptance(known) {}
    virtual ~AcceptedConnection() = default;

    const Acceptance acceptance;
};

/*!
    A socket that keeps its endpoints. A reset before the socket is made, or a disconnection before
    the client is, leaves Qt's socket with a null peer, and such clients would all share one id.

    Thread: the one it lives in.
*/
template<class Socket>
class AcceptedSocket final : public Socket, public AcceptedConnection
{
public:
    explicit AcceptedSocket(const Acceptance &known) : AcceptedConnection(known) {}

    using Socket::setErrorString; // for ends that only the server knows of

    // Puts back what Qt does not know (any more).
    void restoreEndpoints()
    {
        const Endpoints &endpoints = acceptance.endpoints;
        if (this->peerAddress().isNull()) {
            this->setPeerAddress(endpoints.peer);
            this->setPeerPort(endpoints.peerPort);
        }
        if (this->localAddress().isNull()) {
            this->setLocalAddress(endpoints.local);
            this->setLocalPort(endpoints.localPort);
        }
    }
};
