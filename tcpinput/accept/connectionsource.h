// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include "tcpinput/connection/acceptance.h"

#include <QtNetwork/QTcpSocket>

#include <memory>

/*!
    A connection that a thread has taken from a server.

    Thread: that one.
    Owner:  the caller.
*/
struct TakenConnection
{
    std::unique_ptr<QTcpSocket> socket; // without parent; null if there was none to take
    Acceptance acceptance;
};

/*!
    A server that hands out, along with each socket, what it knew of the connection at acceptance.

    Thread: any.
    Owner:  whoever owns the server.
*/
class ConnectionSource
{
public:
    // Takes the oldest connection that is reserved for the calling thread; as long as none was ever
    // reserved, the oldest of all. Its socket lives in the calling thread.
    virtual TakenConnection take() = 0;

protected:
    ~ConnectionSource() = default;
};
