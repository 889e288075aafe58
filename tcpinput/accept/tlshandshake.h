// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include "tcpinput/accept/tlssocket.h"

#include <QtCore/QPointer>
#include <QtCore/QTimer>
#include <QtNetwork/QSslServer>
#include <QtNetwork/QTcpSocket>

#include <memory>
#include <optional>

/*!
    One handshake of a TLS server, from acceptance to the finished or failed socket.

    The server emits the signals of a handshake. Their receivers may run the event loop, and may
    close or delete the server. So most signals are emitted in a later pass of the event loop, when
    no function of the socket is on the stack. Where one must be emitted in the middle of such a
    function, the socket outlives the emission.

    Thread: the server's.
    Owner:  the server (QObject parent); deletes itself at the end. Once dropped from inside a
            receiver it has no owner: the server may be deleted before the receiver returns.
*/
class TlsHandshake : public QObject
{
    Q_OBJECT

public:
    // accepted: not null, with descriptor and configuration set.
    TlsHandshake(QSslServer *owner, std::unique_ptr<TlsSocket> accepted);
    ~TlsHandshake() override;

    // If the peer goes before its first byte, that is no failure. Default: it is one.
    void allowSilence() { silenceAllowed = true; }

    // Whether it goes on when this thread comes to it: bytes or the end of the peer are here, or a
    // receiver runs.
    bool waitsForUs() const;

    // Ends the handshake at once, without a signal of its failure. Inside a receiver that OpenSSL
    // waits for, the connection is closed after the receiver has returned.
    void drop();

    enum class Outcome { Done, Failed, TimedOut, NoTls };

Q_SIGNALS:
    // The peer has made progress: its first byte has come, or it has caused an answer. From inside
    // the socket: receivers may only take note.
    void movedOn();
    // It is open no more, whatever the outcome; emitted once. Receivers may only take note.
    void settled();
    // Emitted as soon as the outcome is known, from inside the socket: receivers may only count.
    // Not emitted if the handshake was dropped, or has ended in silence.
    void cameOut(Outcome outcome);
    // Emitted in a later pass of the event loop than the end of the handshake, never from inside
    // the socket. The receiver owns the socket.
    void finished(TlsSocket *socket);
    // Instead of a failure, see allowSilence().
    void endedSilently();

private:
    template<class... Parameters, class... Arguments>
    void tell(void (QSslServer::*signal)(QSslSocket *, Parameters...),
              const Arguments &...arguments);
    void forwardSignals();
    void askForKey(QSslPreSharedKeyAuthenticator *authenticator);
    void checkHello();
    void sendAnswer();
    void fail(QAbstractSocket::SocketError error);
    void report(QAbstractSocket::SocketError error, const QString &text);
    void timedOut();
    void encrypted();
    void handOver();
    void ignoreSocket();
    void end();

    const QPointer<QSslServer> server;
    std::unique_ptr<TlsSocket> socket;
    // The socket's own, which sends and receives for it. Null once that is handed over: a worker
    // may be deleting it then.
    QPointer<QTcpSocket> plainSocket;
    QTimer timer;
    std::optional<QSslError> interruption; // why Qt has interrupted the handshake
    bool telling = false; // a receiver runs, perhaps with an event loop: do not delete
    bool insideOpenSsl = false; // a receiver runs in there: the socket's SSL object must stay
    bool heard = false; // a first byte
    bool ignoring = false; // the socket's signals: it is open no more
    bool silenceAllowed = false; // see allowSilence()
    bool prolonged = false; // once before the first byte, and once after it
    enum { Open, Encrypted, Failed, Over } state = Open;
};
