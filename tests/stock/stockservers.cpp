// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "stockservers.h"

#include <QtCore/QThread>
#include <QtNetwork/QSslSocket>

#include <limits>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>
#include <utility>

namespace stock {

namespace {

// Longer than Qt's 50: a burst of devices does not wait for the kernel to try again.
constexpr int ListenBacklog = 4096;

// Emits again what the socket has emitted before its client was connected to it.
void announceAgain(QTcpSocket *socket)
{
    if (socket->bytesAvailable() > 0)
        Q_EMIT socket->readyRead();
    if (socket->state() == QAbstractSocket::UnconnectedState)
        Q_EMIT socket->disconnected();
}

} // namespace

//! Keeps the peer's address from the moment of acceptance: after a reset the socket has none.
struct TcpServer::Accepted
{
    class Socket : public QTcpSocket
    {
    public:
        bool adopt(const Accepted &from)
        {
            if (!setSocketDescriptor(from.descriptor))
                return false;
            setPeerAddress(from.peer);
            setPeerPort(from.peerPort);
            return true;
        }
    };

    qintptr descriptor;
    QHostAddress peer;
    quint16 peerPort;
};

TcpServer::TcpServer(QObject *parent) : QTcpServer(parent)
{
    setListenBacklogSize(ListenBacklog);
}

TcpServer::~TcpServer()
{
    close();
}

void TcpServer::close()
{
    QTcpServer::close();
    const QMutexLocker locker(&mutex);
    for (const Accepted &accepted : std::exchange(pending, {}))
        ::close(static_cast<int>(accepted.descriptor));
}

bool TcpServer::hasPendingConnections() const
{
    const QMutexLocker locker(&mutex);
    return !pending.empty();
}

QTcpSocket *TcpServer::nextPendingConnection()
{
    const QMutexLocker locker(&mutex);
    if (pending.empty())
        return nullptr;
    const Accepted next = pending.front();
    pending.pop_front();
    auto *socket = new Accepted::Socket;
    if (socket->adopt(next))
        return socket;
    ::close(static_cast<int>(next.descriptor));
    delete socket;
    return nullptr;
}

void TcpServer::incomingConnection(qintptr descriptor)
{
    sockaddr_storage address{};
    socklen_t length = sizeof address;
    auto *native = reinterpret_cast<sockaddr *>(&address);
    Accepted accepted{descriptor, {}, 0};
    if (::getpeername(static_cast<int>(descriptor), native, &length) == 0) {
        accepted.peer = QHostAddress(native);
        accepted.peerPort = address.ss_family == AF_INET6
                ? ntohs(reinterpret_cast<const sockaddr_in6 &>(address).sin6_port)
                : ntohs(reinterpret_cast<const sockaddr_in &>(address).sin_port);
    }
    const QMutexLocker locker(&mutex);
    pending.push_back(accepted);
}

SslServer::SslServer(QObject *parent) : QSslServer(parent)
{
    setListenBacklogSize(ListenBacklog);
    // Qt never forgets failed handshakes, and stops accepting when it has counted this many.
    setMaxPendingConnections(std::numeric_limits<int>::max());
    // Connected first, so that the plugin's slot finds hasPendingConnections() already false.
    connect(this, &QTcpServer::pendingConnectionAvailable, this, &SslServer::finishedInQt,
            Qt::DirectConnection);
}

SslServer::~SslServer()
{
    close();
}

void SslServer::close()
{
    // Take the finished sockets from Qt first: Qt would use them after close() has deleted them.
    while (QTcpSocket *finished = QSslServer::nextPendingConnection())
        delete finished;
    qDeleteAll(findChildren<QSslSocket *>(QString(), Qt::FindDirectChildrenOnly));
    QSslServer::close();
    const QMutexLocker locker(&mutex);
    for (QTcpSocket *socket : std::exchange(ready, {})) {
        socket->moveToThread(QThread::currentThread());
        delete socket;
    }
}

bool SslServer::hasPendingConnections() const
{
    const QMutexLocker locker(&mutex);
    return !detaching && !ready.empty();
}

QTcpSocket *SslServer::nextPendingConnection()
{
    QTcpSocket *socket = nullptr;
    {
        const QMutexLocker locker(&mutex);
        if (ready.empty())
            return nullptr;
        socket = ready.front();
        ready.pop_front();
    }
    socket->moveToThread(QThread::currentThread());
    QMetaObject::invokeMethod(
            socket, [socket] { announceAgain(socket); }, Qt::QueuedConnection);
    return socket;
}

// Qt emits this signal while the socket is still receiving, and the socket goes on afterwards. The
// socket must not change its thread before that is over.
void SslServer::finishedInQt()
{
    if (announcing || std::exchange(detaching, true))
        return;
    QMetaObject::invokeMethod(this, &SslServer::detachFinished, Qt::QueuedConnection);
}

void SslServer::detachFinished()
{
    detaching = false;
    int detached = 0;
    while (QTcpSocket *socket = QSslServer::nextPendingConnection()) {
        socket->setParent(nullptr);
        socket->moveToThread(nullptr);
        const QMutexLocker locker(&mutex);
        ready.push_back(socket);
        ++detached;
    }
    announcing = true;
    for (; detached > 0; --detached) // the signal is private to Qt, but can be invoked by name
        QMetaObject::invokeMethod(this, "pendingConnectionAvailable", Qt::DirectConnection);
    announcing = false;
}

} // namespace stock
