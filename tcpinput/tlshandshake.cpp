// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "tcpinput/tlshandshake.h"

#include "ssl/sessiontickets.h"

#include <utility>

#include <sys/ioctl.h>

namespace {

constexpr char HandshakeRecord = 0x16; // first byte of a ClientHello's record, RFC 8446, 5.1

} // namespace

TlsHandshake::TlsHandshake(SslServer *owner, std::unique_ptr<SslServer::Socket> accepted)
    : QObject(owner),
      server(owner),
      socket(std::move(accepted))
{
    forwardSignals();
    connect(socket.get(), &QIODevice::readyRead, this, &TlsHandshake::checkHello);
    connect(socket.get(), &QAbstractSocket::errorOccurred, this, &TlsHandshake::fail);
    connect(socket.get(), &QSslSocket::encrypted, this, &TlsHandshake::encrypted);
    connect(&timer, &QTimer::timeout, this, &TlsHandshake::timedOut);
    timer.setSingleShot(true);
    timer.start(server->handshakeTimeout());
}

TlsHandshake::~TlsHandshake()
{
    if (state == Open)
        ignoreSocket();
}

void TlsHandshake::drop()
{
    if (!socket)
        return;
    state = Over;
    ignoreSocket();
    socket->abort();
    if (!reporting)
        deleteLater(); // with the socket, which may be emitting just now
}

void TlsHandshake::forwardSignals()
{
    QSslSocket *from = socket.get();
    connect(from, &QSslSocket::peerVerifyError, server,
            [this, from](const QSslError &error) { Q_EMIT server->peerVerifyError(from, error); });
    connect(from, &QSslSocket::sslErrors, server, [this, from](const QList<QSslError> &errors) {
        const bool within = std::exchange(reporting, true);
        Q_EMIT server->sslErrors(from, errors);
        reporting = within;
        if (!reporting && state == Over) // meanwhile: the receivers may run the event loop
            deleteLater();
    });
    // Passed on with the failure that follows.
    connect(from, &QSslSocket::handshakeInterruptedOnError, server,
            [this](const QSslError &error) { interruption = error; });
    connect(from, &QSslSocket::alertSent, server,
            [this, from](QSsl::AlertLevel level, QSsl::AlertType type, const QString &text) {
                Q_EMIT server->alertSent(from, level, type, text);
            });
    connect(from, &QSslSocket::alertReceived, server,
            [this, from](QSsl::AlertLevel level, QSsl::AlertType type, const QString &text) {
                Q_EMIT server->alertReceived(from, level, type, text);
            });
    connect(from, &QSslSocket::preSharedKeyAuthenticationRequired, server,
            [this, from](QSslPreSharedKeyAuthenticator *authenticator) {
                Q_EMIT server->preSharedKeyAuthenticationRequired(from, authenticator);
            });
}

// A peer that does not speak TLS is dropped without a word, before OpenSSL sees it.
void TlsHandshake::checkHello()
{
    char first = 0;
    if (socket->peek(&first, 1) != 1)
        return;
    disconnect(socket.get(), &QIODevice::readyRead, this, &TlsHandshake::checkHello);
    if (first != HandshakeRecord) {
        drop();
        return;
    }
    timer.start(); // progress was made
    startServerEncryptionWithoutTickets(*socket);
    Q_EMIT server->startedEncryptionHandshake(socket.get());
}

// Comes from inside the socket's receiving, which may go on afterwards: with an alert for the peer,
// or more errors, of which the first tells the reason. The receivers of the report may run the
// event loop, and the socket does not bear that in there.
void TlsHandshake::fail(QAbstractSocket::SocketError error)
{
    state = Failed;
    ignoreSocket();
    QMetaObject::invokeMethod(
            this, [this, error, text = socket->errorString()] { report(error, text); },
            Qt::QueuedConnection);
}

void TlsHandshake::report(QAbstractSocket::SocketError error, const QString &text)
{
    if (state != Failed)
        return; // dropped meanwhile
    state = Over;
    const bool within = std::exchange(reporting, true);
    if (interruption)
        Q_EMIT server->handshakeInterruptedOnError(socket.get(), *interruption);
    socket->setErrorString(text);
    Q_EMIT server->errorOccurred(socket.get(), error);
    reporting = within;
    if (!reporting)
        deleteLater(); // not drop(): an alert for the peer may be on its way
}

void TlsHandshake::timedOut()
{
    // When this thread was held up, the peer's answer may have come in time and not been read yet.
    if (!prolonged && hasUnread()) {
        prolonged = true;
        timer.start();
        return;
    }
    socket->setErrorString(QStringLiteral("The handshake took too long"));
    fail(QAbstractSocket::SocketTimeoutError);
}

bool TlsHandshake::hasUnread() const
{
    int bytes = 0;
    return ::ioctl(static_cast<int>(socket->socketDescriptor()), FIONREAD, &bytes) == 0
            && bytes > 0;
}

void TlsHandshake::encrypted()
{
    state = Encrypted;
    ignoreSocket(); // from now on its errors are the connection's, not the handshake's
    // The signal comes from inside the socket's receiving, which goes on afterwards: the socket
    // must not change its thread before that is over.
    QMetaObject::invokeMethod(this, &TlsHandshake::handOver, Qt::QueuedConnection);
}

void TlsHandshake::handOver()
{
    if (state != Encrypted)
        return; // dropped meanwhile
    SslServer::Socket *finishedSocket = socket.release();
    deleteLater();
    Q_EMIT finished(finishedSocket);
}

void TlsHandshake::ignoreSocket()
{
    timer.stop();
    socket->disconnect(this);
    socket->disconnect(server);
}
