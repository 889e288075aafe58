// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include "tcpinput/accept/acceptingserver.h"

#include <QtNetwork/QTcpServer>

//! A connection that has no socket yet.
struct AcceptedDescriptor
{
    qintptr descriptor;
    Acceptance acceptance;
};

/*!
    A TCP server whose connections are taken by other threads.

    An accepted connection waits as a bare descriptor. Its socket is made by the thread that takes
    it, so no socket and no notifier is ever shared between threads.

    Qt emits newConnection() at each acceptance. With a rule for proxies a connection can be taken
    later, and with a limit for each address it may have been refused. So then
    pendingConnectionAvailable() is emitted, too, for each one when it can be taken.

    Thread: its creator's, except hasPendingConnections(), take() and nextPendingConnection(): any.
    Owner:  the plugin.
    Locks:  those of its parts; never held while emitting.
*/
class TcpServer : public AcceptingServer<QTcpServer, AcceptedDescriptor>
{
    Q_OBJECT

public:
    explicit TcpServer(QObject *parent);
    ~TcpServer() override;

    // Also drops the connections that nobody has taken. Hides QTcpServer::close(), which is not
    // virtual: call it through this class.
    void close();

    // Whether an accepted connection may be refused, or can only be taken later. Then
    // newConnection() says nothing: pendingConnectionAvailable() tells of each that can be taken.
    bool announcesEach() const { return proxies.isOn() || limiter.mayRefuse(); }

    // Until then, the connection's bytes and its end wait in the kernel.
    TakenConnection take() override;

private:
    void admit(qintptr descriptor, const Acceptance &acceptance) override;
};
