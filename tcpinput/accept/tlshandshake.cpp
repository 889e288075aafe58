// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "tcpinput/accept/tlshandshake.h"

#include "ssl/sessiontickets.h"
#include "tcpinput/accept/unread.h"

#include <QtCore/QSocketNotifier>

#include <functional>
#include <utility>

namespace {

constexpr char HandshakeRecord = 0x16; // first byte of a ClientHello's record, RFC 8446, 5.1

} // namespace

TlsHandshake::TlsHandshake(QSslServer *owner, std::unique_ptr<TlsSocket> accepted)
    : QObject(owner),
      server(owner),
      socket(std::move(accepted)),
      plainSocket(socket->findChild<QTcpSocket *>(QString(), Qt::FindDirectChildrenOnly))
{
    forwardSignals();
    connect(socket.get(), &QIODevice::readyRead, this, &TlsHandshake::checkHello);
    connect(socket.get(), &QAbstractSocket::errorOccurred, this, &TlsHandshake::fail);
    connect(socket.get(), &QSslSocket::encrypted, this, &TlsHandshake::encrypted);
    // Connected after the socket itself, which has made its answer when this is called.
    if (plainSocket)
        connect(plainSocket, &QIODevice::readyRead, this, &TlsHandshake::sendAnswer);
    // The kernel has taken some of an answer.
    connect(socket.get(), &QSslSocket::encryptedBytesWritten, this, &TlsHandshake::movedOn);
    connect(&timer, &QTimer::timeout, this, &TlsHandshake::timedOut);
    timer.setSingleShot(true);
    timer.start(server->handshakeTimeout());
}

TlsHandshake::~TlsHandshake()
{
    if (state == Open)
        ignoreSocket();
    if (plainSocket)
        plainSocket->disconnect(this); // it lives for a moment longer than this class's part
}

bool TlsHandshake::waitsForUs() const
{
    return telling || hasUnread(socket->socketDescriptor());
}

void TlsHandshake::drop()
{
    if (telling)
        setParent(nullptr); // the server may be deleted while this and the socket are needed
    if (!socket)
        return;
    ignoreSocket();
    if (!insideOpenSsl)
        socket->abort();
    end(); // deletes the socket later: it may be emitting now
}

// Does not delete while a receiver runs: it may run the event loop, which would carry out a
// deleteLater().
void TlsHandshake::end()
{
    state = Over;
    if (!telling)
        deleteLater();
}

template<class... Parameters, class... Arguments>
void TlsHandshake::tell(void (QSslServer::*signal)(QSslSocket *, Parameters...),
                        const Arguments &...arguments)
{
    if (!server)
        return;
    const bool within = std::exchange(telling, true);
    Q_EMIT std::invoke(signal, server.data(), socket.get(), arguments...);
    telling = within;
    if (state == Over)
        end();
}

void TlsHandshake::forwardSignals()
{
    const QSslSocket *from = socket.get();
    // Receivers of these two may abort the socket: Qt allows that.
    connect(from, &QSslSocket::peerVerifyError, this,
            [this](const QSslError &error) { tell(&QSslServer::peerVerifyError, error); });
    connect(from, &QSslSocket::sslErrors, this,
            [this](const QList<QSslError> &errors) { tell(&QSslServer::sslErrors, errors); });
    connect(from, &QSslSocket::preSharedKeyAuthenticationRequired, this, &TlsHandshake::askForKey);
    // Reported together with the failure that follows.
    connect(from, &QSslSocket::handshakeInterruptedOnError, this,
            [this](const QSslError &error) { interruption = error; });
    // Alerts come from inside OpenSSL, where neither an abort nor an event loop is allowed. So they
    // are passed on later, before the failure that may follow.
    const auto forwardAlerts = [this, from](auto ofSocket, auto ofServer) {
        connect(
                from, ofSocket, this,
                [this, ofServer](QSsl::AlertLevel level, QSsl::AlertType type,
                                 const QString &text) {
                    if (state != Over)
                        tell(ofServer, level, type, text);
                },
                Qt::QueuedConnection);
    };
    forwardAlerts(&QSslSocket::alertSent, &QSslServer::alertSent);
    forwardAlerts(&QSslSocket::alertReceived, &QSslServer::alertReceived);
}

// Comes from inside OpenSSL, like alerts, but needs the answer at once. The receiver may run the
// event loop, so the socket gets no events until the answer is there.
void TlsHandshake::askForKey(QSslPreSharedKeyAuthenticator *authenticator)
{
    QList<QPointer<QSocketNotifier>> silenced;
    const auto notifiers = socket->findChildren<QSocketNotifier *>();
    for (QSocketNotifier *notifier : notifiers) {
        if (!notifier->isEnabled())
            continue;
        notifier->setEnabled(false);
        silenced.append(notifier);
    }
    insideOpenSsl = true;
    tell(&QSslServer::preSharedKeyAuthenticationRequired, authenticator);
    insideOpenSsl = false;
    if (state != Open)
        return; // dropped: its notifiers stay disabled
    for (const QPointer<QSocketNotifier> &notifier : std::as_const(silenced)) {
        if (notifier)
            notifier->setEnabled(true);
    }
}

// A peer that does not speak TLS is dropped before OpenSSL sees it, and not logged.
void TlsHandshake::checkHello()
{
    char first = 0;
    if (socket->peek(&first, 1) != 1)
        return;
    disconnect(socket.get(), &QIODevice::readyRead, this, &TlsHandshake::checkHello);
    heard = true;
    Q_EMIT movedOn();
    if (first != HandshakeRecord) {
        Q_EMIT cameOut(Outcome::NoTls);
        drop();
        return;
    }
    prolonged = false;
    timer.start(); // progress was made
    startServerEncryptionWithoutTickets(*socket);
    if (state == Over)
        return;
    tell(&QSslServer::startedEncryptionHandshake);
    // If the receiver has run the event loop, the plain socket has read on without a signal: this
    // is called from inside that signal.
    if (state == Open && plainSocket && plainSocket->bytesAvailable() > 0)
        Q_EMIT plainSocket->readyRead();
}

// Qt would hand the answer to the kernel in a later pass of the event loop. If this thread is held
// up until then, the peer waits for it, and its time runs out.
void TlsHandshake::sendAnswer()
{
    if ((state == Open || state == Encrypted) && plainSocket)
        plainSocket->flush();
}

// Comes from inside the socket's receiving, which may go on afterwards: with an alert for the peer,
// or with more errors, of which the first tells the reason. So the report comes later. Its
// receivers may run the event loop, and a nested loop here would re-enter QSslSocket.
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
    if (silenceAllowed && !heard && error != QAbstractSocket::SocketTimeoutError) {
        end();
        Q_EMIT endedSilently();
        return;
    }
    state = Over;
    Q_EMIT cameOut(error == QAbstractSocket::SocketTimeoutError ? Outcome::TimedOut
                                                                : Outcome::Failed);
    const bool within = std::exchange(telling, true);
    if (interruption)
        tell(&QSslServer::handshakeInterruptedOnError, *interruption);
    socket->setErrorString(text);
    tell(&QSslServer::errorOccurred, error);
    telling = within;
    end(); // not drop(), which aborts: an alert for the peer may be unsent
}

void TlsHandshake::timedOut()
{
    // While a receiver runs, the peer cannot go on. If this thread was held up, the answer of the
    // peer, or its end, may have come in time.
    if (telling || (!prolonged && hasUnread(socket->socketDescriptor()))) {
        prolonged = prolonged || !telling;
        timer.start();
        return;
    }
    socket->setErrorString(QStringLiteral("The handshake took too long"));
    fail(QAbstractSocket::SocketTimeoutError);
}

void TlsHandshake::encrypted()
{
    state = Encrypted;
    Q_EMIT cameOut(Outcome::Done);
    ignoreSocket(); // from now on its errors are the connection's, not the handshake's
    // Queued: the signal comes from inside the socket's receiving, which goes on afterwards. The
    // socket must not change its thread before that is over.
    QMetaObject::invokeMethod(this, &TlsHandshake::handOver, Qt::QueuedConnection);
}

void TlsHandshake::handOver()
{
    if (state != Encrypted)
        return; // dropped meanwhile
    if (plainSocket)
        plainSocket->disconnect(this); // another thread will use it, and delete it
    plainSocket.clear();
    TlsSocket *finishedSocket = socket.release();
    end();
    Q_EMIT finished(finishedSocket);
}

void TlsHandshake::ignoreSocket()
{
    if (std::exchange(ignoring, true))
        return;
    timer.stop();
    socket->disconnect(this);
    Q_EMIT settled();
}
