// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "tcpinput/accept/tcpserver.h"

#include "tcpinput/accept/listenbacklog.h"
#include "tcpinput/receive/receivingsocket.h"

#include <unistd.h>

TcpServer::TcpServer(QObject *parent)
    : QTcpServer(parent),
      guard(this, [this] { return pending.size(); })
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
    else if (!isListening()) // and was not before
        QTcpServer::close(); // Qt keeps a bound port even if it cannot listen there
    return listening;
}

void TcpServer::close()
{
    QTcpServer::close();
    for (const Pending &connection : pending.takeAll())
        ::close(static_cast<int>(connection.descriptor));
}

bool TcpServer::hasPendingConnections() const
{
    return pending.size() > 0;
}

TakenConnection TcpServer::take()
{
    const std::optional<Pending> next = pending.take();
    if (!next)
        return {};
    return {std::make_unique<ReceivingSocket>(next->descriptor, next->acceptance.endpoints),
            next->acceptance};
}

void TcpServer::incomingConnection(qintptr descriptor)
{
    pending.add({descriptor, Acceptance::of(descriptor, stamping)});
    guard.accepted();
}
