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

    // False if the port is in use, also if another process begins to listen there between bind()
    // and listen() of this one; the server has no port then. Also false if the server listens
    // already; it goes on to listen.
    bool listen(const QHostAddress &address, quint16 port);
    // Also drops the connections that nobody has taken. Hides QTcpServer::close(), which is not
    // virtual: call it through this class.
    void close();

    bool hasPendingConnections() const override;
    // Reserves the oldest connection that is not reserved yet: no other thread gets it.
    void reserveFor(const QThread *taker) { pending.reserveFor(taker); }
    // Until then, the connection's bytes and its end wait in the kernel.
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
