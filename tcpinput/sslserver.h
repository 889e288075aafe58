// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include "tcpinput/acceptedsocket.h"
#include "tcpinput/acceptguard.h"
#include "tcpinput/pendingconnections.h"

#include <QtNetwork/QSslServer>
#include <QtNetwork/QSslSocket>

class TlsHandshake;

/*!
    A TLS server whose connections are taken by other threads.

    Handshakes run here, each in a TlsHandshake of its own; QSslServer's handling of them is not
    used: thirty failed ones stop it for good, and closing it with one open crashes. A finished
    socket is detached from this thread and waits without one until another thread takes it.

    Emits the signals of QSslServer: sslErrors() while the handshake lasts, errorOccurred() once it
    has failed, right after handshakeInterruptedOnError() if that is why (an interrupted one cannot
    be continued), pendingConnectionAvailable() when a connection can be taken. Alerts are told in a
    later pass of the event loop. Receivers of all of these may close or delete the server.

    Thread: its creator's, except hasPendingConnections() and nextPendingConnection(): any.
    Owner:  the plugin.
    Locks:  those of its parts; never held while emitting.
*/
class SslServer : public QSslServer
{
    Q_OBJECT

public:
    using Socket = AcceptedSocket<QSslSocket>;

    explicit SslServer(QObject *parent);
    ~SslServer() override;

    // Whether the offers of connections accepted from now on are stamped. Default: no.
    void setStamping(bool on) { stamping = on; }

    bool listen(const QHostAddress &address, quint16 port); // as TcpServer's
    // Also drops open handshakes and the connections that nobody has taken. Hides
    // QTcpServer::close(), which is not virtual: call it through this class.
    void close();

    bool hasPendingConnections() const override;
    // The oldest connection that is not reserved yet goes to that thread and to no other.
    void reserveFor(const QThread *taker) { ready.reserveFor(taker); }
    // A socket without parent that lives in the calling thread and belongs to the caller; null if
    // none is pending. What it received, and its end, are announced once more in that thread.
    QTcpSocket *nextPendingConnection() override;

    AcceptGuard guard;

protected:
    void incomingConnection(qintptr descriptor) override;

private:
    void enqueue(Socket *socket);

    bool stamping = false; // this and the next: the server's thread only
    qsizetype openHandshakes = 0;
    PendingConnections<Socket *> ready; // the sockets live in no thread
};
