// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include "tcpinput/connection/endpoints.h"
#include "tests/kit/choices.h"

#include <QtCore/QByteArray>
#include <QtNetwork/QTcpSocket>

#include <vector>

/*!
    The connection of a client in a random run: its socket, and what the test does at the other end.
    When a call returns, what arrives is in the kernel. The socket learns of it when the event loop
    turns.

    Thread: the socket's.
*/
class ClientLink
{
public:
    explicit ClientLink(const Endpoints &known) : endpoints(known) {}
    virtual ~ClientLink() = default;
    Q_DISABLE_COPY_MOVE(ClientLink)

    // To be given to the client, which becomes its parent.
    virtual QTcpSocket *socket() const = 0;

    // Which numbers of bytes to try at once.
    virtual const std::vector<int> &sizes() const = 0;
    // How many more bytes the kernel takes now.
    virtual qsizetype room() const = 0;
    // False if the bytes do not arrive.
    virtual bool arrive(const QByteArray &bytes) = 0;
    // The peer sends no more. choices: select in which way it ends.
    virtual void end(Choices &choices) = 0;

    // unread(): all that the client can still get. nextRead(): what the next turn brings of it.
    virtual QByteArray unread() const = 0;
    virtual QByteArray nextRead() const = 0;

    // A turn of the event loop for the socket. True if there were bytes.
    virtual bool turn() = 0;
    // Whether turn() also makes the queued calls, before the socket's turn.
    virtual bool turnMakesCalls() const = 0;
    // The socket looks into the kernel without a turn of the event loop. True if that announces
    // bytes.
    virtual bool look() = 0;
    // As look(), but the socket announces no bytes, if it can do that.
    virtual void holdBack() = 0;

    const Endpoints endpoints;
};
