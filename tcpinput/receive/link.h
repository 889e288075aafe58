// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include "plugin/connection.h"
#include "tcpinput/receive/endreason.h"
#include "tcpinput/receive/sockettransport.h"

#include <QtCore/QString>

#include <memory>

/*!
    The socket of a client, until the connection's end.

    Thread: the socket's.
    Owner:  the client, as a member.
*/
class Link
{
public:
    // Of a client that has no connection.
    Link() = default;
    // connected: not null. client: has connected to its signals; at the end, it is disconnected.
    Link(QTcpSocket *connected, QObject &client);
    // Closes a socket that is still open; the client is not told.
    ~Link();
    Q_DISABLE_COPY_MOVE(Link)

    // False: there is none, or the end has come.
    bool isThere() const { return current; }
    QTcpSocket &socket() const { return *current; }
    Transport &transport() const { return *reads; }
    // False: no more can be read.
    bool isUsable() const { return reads && reads->isUsable(); }

    //! The addresses that the socket knows.
    struct Names
    {
        QString local;
        QString peer;
        quint16 localPort;
        quint16 peerPort;
    };
    Names names() const;

    // Has the socket fetch what the event loop has not read yet: close() would drop it. The socket
    // may find that the peer has gone, and emit disconnected().
    void fetchLast();

    //! How the connection has ended.
    struct End
    {
        QTcpSocket *socket; // to be closed and deleted
        EndReason reason;
        QString failure; // of reading; empty: none
    };
    // Lets go of the socket. ownReason: if this side ends the connection.
    End end(EndReason ownReason);

    // What readyRead() of the client carries.
    static Connection describe(const QTcpSocket &from, const QByteArray &data);

private:
    QObject *owner = nullptr;
    QTcpSocket *current = nullptr;
    std::unique_ptr<SocketTransport> adapter; // for a socket that is no transport itself
    Transport *reads = nullptr;
};
