// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include "plugin/connection.h"
#include "tcpinput/accept/connectionsource.h"
#include "tests/kit/nativesocket.h"

#include <QtNetwork/QSslServer>
#include <QtNetwork/QTcpServer>
#include <QtNetwork/QTcpSocket>

#include <deque>

//! A server that does not listen: the test decides which connections are pending.
template<class Base>
class PreparedServer : public Base
{
public:
    ~PreparedServer() override { qDeleteAll(sockets); }

    QTcpSocket *nextPendingConnection() override
    {
        ++asked;
        if (sockets.empty())
            return nullptr;
        QTcpSocket *const socket = sockets.front();
        sockets.pop_front();
        return socket;
    }

    void prepare(SocketPair &pair)
    {
        prepare(new QTcpSocket);
        sockets.back()->setSocketDescriptor(pair.accepted.release());
    }
    void prepare(QTcpSocket *socket) { sockets.push_back(socket); }

    int asked = 0;

private:
    std::deque<QTcpSocket *> sockets;
};

using PreparedTcpServer = PreparedServer<QTcpServer>;
using PreparedSslServer = PreparedServer<QSslServer>;

//! A prepared server that also knows the Acceptance of each connection.
class PreparedSource final : public PreparedTcpServer, public ConnectionSource
{
public:
    void prepare(QTcpSocket *socket, const Acceptance &acceptance)
    {
        PreparedTcpServer::prepare(socket);
        known.push_back(acceptance);
    }

    TakenConnection take() override
    {
        TakenConnection taken{std::unique_ptr<QTcpSocket>(nextPendingConnection()), {}};
        if (taken.socket) {
            taken.acceptance = known.front();
            known.pop_front();
        }
        return taken;
    }

private:
    std::deque<Acceptance> known; // of the pending connections, in order
};
