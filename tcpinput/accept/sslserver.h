// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include "tcpinput/accept/acceptingserver.h"
#include "tcpinput/accept/handshakethreads.h"
#include "tcpinput/accept/minutenotice.h"
#include "tcpinput/accept/openhandshakes.h"
#include "tcpinput/accept/tlshandshake.h"
#include "tcpinput/accept/tlssocket.h"
#include "tls/settings.h"

#include <QtCore/QTimer>
#include <QtNetwork/QSslServer>

#include <memory>

//! A connection whose handshake is done: a socket of Qt's, or a session of our own.
struct ReadySocket
{
    std::unique_ptr<TlsSocket> socket; // lives in no thread
    std::unique_ptr<tls::Session> session;
    Descriptor descriptor; // the session's
    Acceptance acceptance;
};

/*!
    A TLS server whose connections are taken by other threads.

    QSslServer's own handling of handshakes is not used: thirty failed ones stop it for good, and
    closing it during one crashes. There are two engines instead.

    With Qt's, handshakes run in the server's thread, each in its own TlsHandshake. A finished
    socket is detached from this thread. It lives in no thread until another one takes it.

    With our own they run in HandshakeThreads. The socket is made by the thread that takes the
    connection. The signals come when the handshake is over, with a socket that was never connected:
    it knows the peer and the error. Receivers cannot ignore an error, nor provide a pre-shared key.

    With both, at most so many handshakes wait for their peers. If there are more, some of them go,
    without a signal: see OpenHandshakes. Those that wait for this computer stay; accepting pauses
    if there are too many of them.

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

    // For handshakes that begin from now on. threads: for those of our own engine; more than 0.
    void setUp(const tls::Settings &settings, int threads);
    // How many handshakes may be open and wait for their peers, with each engine; more than 0. For
    // tests.
    void setMostOpen(int value);

    // Bytes that the socket has received, and its end, are signalled once more in the calling
    // thread.
    TakenConnection take() override;

    void addTo(InputCounters &sum) const override;

    // Of handshakes that were closed to make room for others.
    MinuteNotice crowds;
    // Of connections that were closed since their first byte was none of TLS.
    MinuteNotice withoutTls;

private:
    //! One of Qt's engine.
    struct QtHandshake
    {
        TlsHandshake *handshake;
        Endpoints endpoints;
    };

    void admit(qintptr descriptor, const Acceptance &acceptance) override;
    qsizetype handshakes() const override { return openHandshakes + threads.open(); }
    bool hasRoom() const override;
    void admitToQt(qintptr descriptor, const Acceptance &acceptance);
    void follow(TlsHandshake *handshake, const Acceptance &acceptance);
    void makeRoom();
    void settle(HandshakeResult &result);
    void tell(const HandshakeResult &result);
    void count(TlsHandshake::Outcome outcome, qint64 ns);
    void enqueue(ReadySocket connection);

    std::shared_ptr<const tls::Context> context; // of our own engine; null: it is Qt's
    HandshakeThreads threads;
    // Of Qt's engine. This and below: the server's thread only
    OpenHandshakes<QtHandshake> qtHandshakes; // those that go on
    qsizetype openHandshakes = 0; // these, and those that are over and not handed over or deleted
    int mostOpen = MostOpenHandshakes; // of the first
    QTimer roomTimer; // runs while there are more
    InputCounters counters; // of handshakes
};
