// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "tcpinput/receive/link.h"

#include <QtNetwork/QTcpSocket>

#include <utility>

Link::Link(QTcpSocket *connected, QObject &client)
    : owner(&client),
      current(connected),
      reads(dynamic_cast<Transport *>(connected))
{
    if (reads)
        return;
    adapter = std::make_unique<SocketTransport>(*current);
    reads = adapter.get();
}

Link::~Link()
{
    if (!current)
        return;
    reads->setReader(nullptr);
    // Before the close, which would tell a client that is being destroyed.
    current->disconnect(owner);
    if (current->isOpen())
        current->close();
    adapter.reset();
    current->deleteLater();
}

Link::Names Link::names() const
{
    return {current->localAddress().toString(), current->peerAddress().toString(),
            current->localPort(), current->peerPort()};
}

void Link::fetchLast()
{
    if (current->state() == QAbstractSocket::ConnectedState)
        current->waitForReadyRead(0);
}

Link::End Link::end(EndReason ownReason)
{
    QTcpSocket *const closing = std::exchange(current, nullptr);
    const bool endsHere = closing->state() == QAbstractSocket::ConnectedState;
    End end{closing, endsHere ? ownReason : reads->endReason(),
            endsHere ? QString() : reads->failure()};
    reads = nullptr;
    adapter.reset();
    QObject::disconnect(closing, &QAbstractSocket::disconnected, owner, nullptr);
    return end;
}

Connection Link::describe(const QTcpSocket &from, const QByteArray &data)
{
    Connection c;
    c.setData(data);
    c.setSenderHost(from.peerAddress());
    c.setSenderPort(from.peerPort());
    c.setLocalAddress(from.localAddress());
    c.setLocalPort(from.localPort());
    return c;
}
