// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include "tcpinput/accept/tlssocket.h"

#include <QtCore/QPointer>
#include <QtCore/QTimer>
#include <QtNetwork/QSslServer>

#include <memory>
#include <optional>

/*!
    One handshake of a TLS server, from acceptance to the finished or failed socket.

    The receivers of what it has the server tell may run the event loop, close the server or delete
    it. Where that can be, they are called outside of the socket's work. Where they must be called
    in the middle of it, the socket outlives the call, whatever they do.

    Thread: the server's.
    Owner:  the server (QObject parent); deletes itself at the end. Nobody, once it was dropped from
            inside a receiver: the server may go before the receiver returns.
*/
class TlsHandshake : public QObject
{
    Q_OBJECT

public:
    // accepted: not null, with descriptor and configuration set.
    TlsHandshake(QSslServer *owner, std::unique_ptr<TlsSocket> accepted);
    ~TlsHandshake() override;

    // Ends it at once, without a signal. From inside a receiver that OpenSSL waits for, the
    // connection is closed after the receiver's return.
    void drop();

Q_SIGNALS:
    // Comes in a later pass of the event loop than the end of the handshake, never from inside
    // the socket. The receiver owns the socket.
    void finished(TlsSocket *socket);

private:
    template<class... Parameters, class... Arguments>
    void tell(void (QSslServer::*signal)(QSslSocket *, Parameters...),
              const Arguments &...arguments);
    void forwardSignals();
    void askForKey(QSslPreSharedKeyAuthenticator *authenticator);
    void checkHello();
    void fail(QAbstractSocket::SocketError error);
    void report(QAbstractSocket::SocketError error, const QString &text);
    void timedOut();
    bool hasUnread() const;
    void encrypted();
    void handOver();
    void ignoreSocket();
    void end();

    const QPointer<QSslServer> server;
    std::unique_ptr<TlsSocket> socket;
    QTimer timer;
    std::optional<QSslError> interruption; // of the handshake, by Qt
    bool telling = false; // receivers, who may run the event loop: not to be deleted
    bool insideOpenSsl = false; // a receiver is: the socket's SSL object must stay
    bool prolonged = false; // once, for an answer that was there in time
    enum { Open, Encrypted, Failed, Over } state = Open;
};
