// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include "tcpinput/accept/acceptguard.h"
#include "tcpinput/accept/connectionsource.h"
#include "tcpinput/accept/pendingconnections.h"

#include <QtNetwork/QTcpServer>

/*!
    A TCP server whose connections are taken by other threads.

    An accepted connection waits as a bare descriptor. Its socket is made by the thread that takes
    it, so no socket and no notifier is ever shared between threads.

    Thread: its creator's, except hasPendingConnections(), take() and nextPendingConnection(): any.
    Owner:  the plugin.
    Locks:  those of its parts; never held while emitting.
*/
class TcpServer : public QTcpServer, public ConnectionSource
{
    Q_OBJECT

public:
    explicit TcpServer(QObject *parent);
    ~TcpServer() override;

    // Whether the offers of connections accepted from now on are stamped. Default: no.
    void setStamping(bool on) { stamping = on; }

    // False if the port cannot be had, also if another process begins to listen there between this
    // one's bind() and listen(). The server has no port then. But one that listens goes on, and
    // this is false.
    bool listen(const QHostAddress &address, quint16 port);
    // Also drops the connections that nobody has taken. Hides QTcpServer::close(), which is not
    // virtual: call it through this class.
    void close();

    bool hasPendingConnections() const override;
    // The oldest connection that is not reserved yet goes to that thread and to no other.
    void reserveFor(const QThread *taker) { pending.reserveFor(taker); }
    // Bytes and the end of the connection wait in the kernel until then.
    TakenConnection take() override;
    // The socket of take(); belongs to the caller.
    QTcpSocket *nextPendingConnection() override { return take().socket.release(); }

    AcceptGuard guard;

protected:
    void incomingConnection(qintptr descriptor) override;

private:
    struct Pending
    {
        qintptr descriptor;
        Acceptance acceptance;
    };

    bool stamping = false; // the server's thread only
    PendingConnections<Pending> pending;
};
