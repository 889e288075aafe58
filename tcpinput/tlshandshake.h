// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include "tcpinput/sslserver.h"

#include <QtCore/QTimer>

#include <memory>
#include <optional>

/*!
    One handshake of a TLS server, from acceptance to the finished or failed socket.

    Thread: the server's.
    Owner:  the server (QObject parent); deletes itself at the end.
*/
class TlsHandshake : public QObject
{
    Q_OBJECT

public:
    // accepted: not null, with descriptor and configuration set.
    TlsHandshake(SslServer *owner, std::unique_ptr<SslServer::Socket> accepted);
    ~TlsHandshake() override;

    // Ends it at once, without a signal; also from inside one of its own.
    void drop();

Q_SIGNALS:
    // Comes in a later pass of the event loop than the end of the handshake, never from inside
    // the socket. The receiver owns the socket.
    void finished(SslServer::Socket *socket);

private:
    void forwardSignals();
    void checkHello();
    void fail(QAbstractSocket::SocketError error);
    void report(QAbstractSocket::SocketError error, const QString &text);
    void timedOut();
    bool hasUnread() const;
    void encrypted();
    void handOver();
    void ignoreSocket();

    SslServer *const server;
    std::unique_ptr<SslServer::Socket> socket;
    QTimer timer;
    std::optional<QSslError> interruption; // of the handshake, by Qt
    bool reporting = false; // to receivers, which may run the event loop: not to be deleted
    bool prolonged = false; // once, for an answer that was there in time
    enum { Open, Encrypted, Failed, Over } state = Open;
};
