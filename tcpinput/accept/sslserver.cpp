// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "tcpinput/accept/sslserver.h"

#include <QtCore/QElapsedTimer>
#include <QtCore/QThread>

#include <algorithm>
#include <utility>

#include <unistd.h>

namespace {

// Qt keeps a socket connected if its peer ends TLS with close_notify but keeps TCP open, or sends
// what is no TLS any more. Nothing can come then, but the connection would stay until the idle
// time-out.
void disconnectIfOver(QSslSocket *socket)
{
    const QAbstractSocket::SocketError error = socket->error();
    if (error == QAbstractSocket::RemoteHostClosedError
        || error == QAbstractSocket::SslInternalError)
        socket->disconnectFromHost();
}

// Bytes and the end may have come in another thread, before the worker's client connected to the
// socket. This repeats their signals in the worker's thread, once the client has connected.
void announceAgain(QSslSocket *socket)
{
    if (socket->bytesAvailable() > 0)
        Q_EMIT socket->readyRead();
    disconnectIfOver(socket);
    if (socket->state() == QAbstractSocket::UnconnectedState)
        Q_EMIT socket->disconnected();
}

} // namespace

SslServer::SslServer(QObject *parent)
    : AcceptingServer(parent,
                      [this] { return openHandshakes + waiting.size() + proxies.waiting(); })
{
    // For receivers of its signals with a queued connection.
    qRegisterMetaType<QSslSocket *>();
    qRegisterMetaType<QAbstractSocket::SocketError>();
    qRegisterMetaType<QSslError>();
    qRegisterMetaType<QList<QSslError>>();
}

SslServer::~SslServer()
{
    close();
}

void SslServer::close()
{
    QSslServer::close();
    const auto handshakes = findChildren<TlsHandshake *>(QString(), Qt::FindDirectChildrenOnly);
    for (TlsHandshake *handshake : handshakes)
        handshake->drop();

    for (const ReadySocket &connection : waiting.takeAll())
        connection.socket->moveToThread(QThread::currentThread()); // which then deletes it
    proxies.close(); // its lines may run an event loop
}

TakenConnection SslServer::take()
{
    std::optional<ReadySocket> next = waiting.take();
    if (!next)
        return {};
    TlsSocket *socket = next->socket.get();
    socket->moveToThread(QThread::currentThread());
    socket->restoreEndpoints(next->acceptance.endpoints);
    connect(
            socket, &QAbstractSocket::errorOccurred, socket, [socket] { disconnectIfOver(socket); },
            Qt::QueuedConnection);
    QMetaObject::invokeMethod(
            socket, [socket] { announceAgain(socket); }, Qt::QueuedConnection);
    return {std::move(next->socket), next->acceptance};
}

void SslServer::admit(qintptr descriptor, const Acceptance &acceptance)
{
    auto socket = std::make_unique<TlsSocket>();
    socket->setSslConfiguration(sslConfiguration());
    if (!socket->setSocketDescriptor(descriptor)) {
        ::close(static_cast<int>(descriptor));
        guard.accepted();
        return;
    }
    if (acceptance.isProxied)
        socket->replacePeer(acceptance.endpoints);
    auto *handshake = new TlsHandshake(this, std::move(socket));
    if (acceptance.isProxied) {
        handshake->allowSilence(); // the proxy may only look whether somebody listens
        connect(handshake, &TlsHandshake::endedSilently, &proxies, &ProxyGate::countSilent);
    }
    QElapsedTimer since;
    since.start();
    connect(handshake, &TlsHandshake::cameOut, this,
            [this, since](TlsHandshake::Outcome outcome) { count(outcome, since.nsecsElapsed()); });
    const auto over = connect(handshake, &QObject::destroyed, this, [this] { --openHandshakes; });
    connect(handshake, &TlsHandshake::finished, this,
            [this, acceptance, over](TlsSocket *finished) {
                disconnect(over);
                --openHandshakes;
                enqueue(finished, acceptance);
            });
    ++openHandshakes;
    guard.accepted();
}

void SslServer::count(TlsHandshake::Outcome outcome, qint64 ns)
{
    constexpr qint64 NsPerUs = 1000;
    const auto us = static_cast<quint64>(ns / NsPerUs);
    switch (outcome) {
    case TlsHandshake::Outcome::Done:
        ++counters.handshakesDone;
        counters.handshakeUs += us;
        counters.longestHandshakeUs = std::max(counters.longestHandshakeUs, us);
        break;
    case TlsHandshake::Outcome::Failed:
        ++counters.handshakesFailed;
        break;
    case TlsHandshake::Outcome::TimedOut:
        ++counters.handshakesTimedOut;
        break;
    case TlsHandshake::Outcome::NoTls:
        ++counters.withoutTls;
        break;
    }
}

void SslServer::addTo(InputCounters &sum) const
{
    AcceptingServer::addTo(sum);
    sum.handshakesDone += counters.handshakesDone;
    sum.handshakesFailed += counters.handshakesFailed;
    sum.handshakesTimedOut += counters.handshakesTimedOut;
    sum.withoutTls += counters.withoutTls;
    sum.handshakeUs += counters.handshakeUs;
    sum.longestHandshakeUs = std::max(sum.longestHandshakeUs, counters.longestHandshakeUs);
}

void SslServer::enqueue(TlsSocket *socket, const Acceptance &acceptance)
{
    socket->moveToThread(nullptr); // its parent is null already
    waiting.add({std::unique_ptr<TlsSocket>(socket), acceptance});
    // The signal is private to Qt's class, but can be invoked by name.
    QMetaObject::invokeMethod(this, "pendingConnectionAvailable", Qt::DirectConnection);
}
