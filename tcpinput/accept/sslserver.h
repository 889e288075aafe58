// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include "tcpinput/accept/acceptingserver.h"
#include "tcpinput/accept/tlshandshake.h"
#include "tcpinput/accept/tlssocket.h"

#include <QtNetwork/QSslServer>

#include <memory>

//! A connection whose handshake is done.
struct ReadySocket
{
    std::unique_ptr<TlsSocket> socket; // lives in no thread
    Acceptance acceptance;
};

/*!
    A TLS server whose connections are taken by other threads.

    Handshakes run in the server's thread, each in its own TlsHandshake. QSslServer's own handling
    is not used: thirty failed handshakes stop it for good, and closing it during one crashes. A
    finished socket is detached from this thread. It lives in no thread until another one takes it.

    Emits the signals of QSslServer: sslErrors() during the handshake; errorOccurred() when it has
    failed, right after handshakeInterruptedOnError() if that is the reason (an interrupted
    handshake cannot be continued); pendingConnectionAvailable() when a connection can be taken.
    Alerts are reported in a later pass of the event loop. Receivers of all these signals may close
    or delete the server.

    Thread: its creator's, except hasPendingConnections(), take() and nextPendingConnection(): any.
    Owner:  the plugin.
    Locks:  those of its parts; never held while emitting.
*/
class SslServer : public AcceptingServer<QSslServer, ReadySocket>
{
    Q_OBJECT

public:
    explicit SslServer(QObject *parent);
    ~SslServer() override;

    // Also drops open handshakes and the connections that nobody has taken. Hides
    // QTcpServer::close(), which is not virtual: call it through this class.
    void close();

    // Bytes that the socket has received, and its end, are signalled once more in the calling
    // thread.
    TakenConnection take() override;

    void addTo(InputCounters &sum) const override;

private:
    void admit(qintptr descriptor, const Acceptance &acceptance) override;
    qsizetype handshakes() const override { return openHandshakes; }
    void count(TlsHandshake::Outcome outcome, qint64 ns);
    void enqueue(TlsSocket *socket, const Acceptance &acceptance);

    qsizetype openHandshakes = 0; // this and below: the server's thread only
    InputCounters counters; // of handshakes
};
