// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include "tcpinput/connection/endpoints.h"
#include "tests/kit/choices.h"

#include <QtCore/QByteArray>
#include <QtNetwork/QTcpSocket>

#include <vector>

/*!
    The connection of a client that a random run is played to: its socket, and what the test does at
    the other end. What arrives is in the kernel when a call returns, and the socket does not know
    of it until the event loop turns.

    Thread: the socket's.
*/
class ClientLink
{
public:
    explicit ClientLink(const Endpoints &known) : endpoints(known) {}
    virtual ~ClientLink() = default;
    Q_DISABLE_COPY_MOVE(ClientLink)

    // For the client, which gets it as its child.
    virtual QTcpSocket *socket() const = 0;

    // How many bytes can arrive at once: what is worth a try.
    virtual const std::vector<int> &sizes() const = 0;
    // How many bytes more the kernel takes now.
    virtual qsizetype room() const = 0;
    // False if they do not come.
    virtual bool arrive(const QByteArray &bytes) = 0;
    // The peer sends no more; how it ends is chosen.
    virtual void end(Choices &choices) = 0;

    // All that the client can still get, and what of it the next turn brings.
    virtual QByteArray unread() const = 0;
    virtual QByteArray nextRead() const = 0;

    // A turn of the event loop for the socket. True if there were bytes.
    virtual bool turn() = 0;
    // Whether it makes queued calls, too, before the socket's turn.
    virtual bool turnMakesCalls() const = 0;
    // The socket looks into the kernel without a turn of the event loop. True if that announces
    // bytes.
    virtual bool look() = 0;
    // The same, but nobody is told of bytes, if the socket can do that.
    virtual void holdBack() = 0;

    const Endpoints endpoints;
};
