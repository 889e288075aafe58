// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "tcpinput/tcpserver.h"

#include "tcpinput/listenbacklog.h"

#include <QtNetwork/QTcpSocket>

#include <unistd.h>

TcpServer::TcpServer(QObject *parent)
    : QTcpServer(parent),
      guard(this, [this] {
          const QMutexLocker locker(&mutex);
          return static_cast<qsizetype>(pending.size());
      })
{
    setListenBacklogSize(ListenBacklog);
}

TcpServer::~TcpServer()
{
    close();
}

bool TcpServer::listen(const QHostAddress &address, quint16 port)
{
    const bool listening = QTcpServer::listen(address, port);
    if (listening)
        guard.watch();
    return listening;
}

void TcpServer::close()
{
    QTcpServer::close();
    const QMutexLocker locker(&mutex);
    for (const Pending &connection : pending)
        ::close(static_cast<int>(connection.descriptor));
    pending.clear();
}

bool TcpServer::hasPendingConnections() const
{
    const QMutexLocker locker(&mutex);
    return !pending.empty();
}

QTcpSocket *TcpServer::nextPendingConnection()
{
    Pending next;
    {
        const QMutexLocker locker(&mutex);
        if (pending.empty())
            return nullptr;
        next = std::move(pending.front());
        pending.pop_front();
    }

    auto *socket = new AcceptedSocket<QTcpSocket>(next.acceptance);
    if (!socket->setSocketDescriptor(next.descriptor)) {
        ::close(static_cast<int>(next.descriptor));
        delete socket;
        return nullptr;
    }
    socket->restoreEndpoints();
    return socket;
}

void TcpServer::incomingConnection(qintptr descriptor)
{
    {
        const QMutexLocker locker(&mutex);
        pending.push_back({descriptor, Acceptance::of(descriptor, stamping)});
    }
    guard.accepted();
}
