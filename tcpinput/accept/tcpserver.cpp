// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "tcpinput/accept/tcpserver.h"

#include "tcpinput/receive/receivingsocket.h"

#include <unistd.h>

TcpServer::TcpServer(QObject *parent)
    : AcceptingServer(parent, [this] { return waiting.size() + proxies.waiting(); })
{}

TcpServer::~TcpServer()
{
    close();
}

void TcpServer::close()
{
    QTcpServer::close();
    for (const AcceptedDescriptor &connection : waiting.takeAll())
        ::close(static_cast<int>(connection.descriptor));
    proxies.close(); // its lines may run an event loop
}

TakenConnection TcpServer::take()
{
    const std::optional<AcceptedDescriptor> next = waiting.take();
    if (!next)
        return {};
    return {std::make_unique<ReceivingSocket>(next->descriptor, next->acceptance.endpoints),
            next->acceptance};
}

void TcpServer::admit(qintptr descriptor, const Acceptance &acceptance)
{
    waiting.add({descriptor, acceptance});
    guard.accepted();
    // The signal is private to Qt's class, but can be invoked by name. Receivers may delete this.
    if (announcesEach())
        QMetaObject::invokeMethod(this, "pendingConnectionAvailable", Qt::DirectConnection);
}
