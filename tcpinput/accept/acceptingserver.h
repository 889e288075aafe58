// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include "tcpinput/accept/acceptguard.h"
#include "tcpinput/accept/connectionsource.h"
#include "tcpinput/accept/pendingconnections.h"

#include <QtCore/QThread>
#include <QtNetwork/QHostAddress>

#include <functional>
#include <utility>

/*!
    What the two servers have in common. Base: Qt's server. Waiting: what the server keeps of a
    connection until a thread takes it.

    Thread: its creator's, except hasPendingConnections(), take() and nextPendingConnection(): any.
    Owner:  the plugin.
    Locks:  those of its parts; never held while emitting.
*/
template<class Base, class Waiting>
class AcceptingServer : public Base, public ConnectionSource
{
public:
    // How connections are served that are accepted from now on. Default: as the contract gives it.
    void setServing(const Serving &value) { serving = value; }

    // False if the port is in use, also if another process begins to listen there between bind()
    // and listen() of this one; the server has no port then. Also false if the server listens
    // already; it goes on to listen.
    bool listen(const QHostAddress &address, quint16 port)
    {
        const bool listening = Base::listen(address, port);
        if (listening)
            guard.watch();
        else if (!this->isListening()) // and was not before
            Base::close(); // Qt keeps a bound port even if it cannot listen there
        return listening;
    }

    bool hasPendingConnections() const override { return waiting.size() > 0; }
    // Reserves the oldest connection that is not reserved yet: no other thread gets it.
    void reserveFor(const QThread *taker) { waiting.reserveFor(taker); }
    // The socket of take(); belongs to the caller.
    QTcpSocket *nextPendingConnection() override { return take().socket.release(); }

    AcceptGuard guard;

protected:
    // count: how many accepted connections no thread has taken yet.
    AcceptingServer(QObject *parent, std::function<qsizetype()> count)
        : Base(parent),
          guard(this, std::move(count))
    {
        this->setListenBacklogSize(ListenBacklog);
    }

    Serving serving; // the server's thread only
    PendingConnections<Waiting> waiting;

private:
    // Length of the kernel's accept queue: a burst of 2,000 devices fits in. A device whose SYN
    // finds the queue full waits a second or more for its retransmission. The kernel limits the
    // length to net.core.somaxconn.
    static constexpr int ListenBacklog = 4096;
};
