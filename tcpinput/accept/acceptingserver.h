// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include "plugin/countersevent.h"
#include "tcpinput/accept/acceptguard.h"
#include "tcpinput/accept/connectionlimiter.h"
#include "tcpinput/accept/connectionsource.h"
#include "tcpinput/accept/descriptor.h"
#include "tcpinput/accept/peersinuse.h"
#include "tcpinput/accept/pendingconnections.h"
#include "tcpinput/accept/proxygate.h"

#include <QtCore/QPointer>
#include <QtCore/QThread>
#include <QtNetwork/QHostAddress>

#include <functional>
#include <optional>
#include <utility>

#include <unistd.h>

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
    // Which of them begin with a PROXY header. Default: none.
    void setProxyRule(const std::optional<ProxyRule> &rule) { proxies.setRule(rule); }
    // How many of them there may be, and how fast. Default: no limits.
    void setLimits(const AcceptLimits &value) { limiter.setLimits(value); }
    // True: none is accepted, whenever the server listens. Default: false.
    void setPaused(bool pause)
    {
        paused = pause;
        guard.checkGate();
    }

    // Uses the listening socket if it is bound there. Otherwise as below, and the socket is closed.
    bool listen(const QHostAddress &address, quint16 port, Descriptor shared)
    {
        if (shared.get() < 0 || this->isListening())
            return listen(address, port);
        if (Base::setSocketDescriptor(shared.get())) {
            shared.release(); // the server closes it
            if (this->serverAddress() == address && this->serverPort() == port) {
                guard.watch();
                return true;
            }
            Base::close();
        }
        return listen(address, port);
    }
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

    // Accepts what waits in the kernel, unless a limit or a pause forbids it, and nothing from then
    // on. What was accepted goes on.
    void stopListening()
    {
        const QPointer<QObject> self(this); // receivers may delete it
        guard.acceptRest();
        if (self)
            Base::close();
    }

    bool hasPendingConnections() const override { return waiting.size() > 0; }
    // Reserves the oldest connection that is not reserved yet: no other thread gets it.
    void reserveFor(const QThread *taker) { waiting.reserveFor(taker); }
    // The socket of take(); belongs to the caller.
    QTcpSocket *nextPendingConnection() override { return take().socket.release(); }

    // Adds what has become of the connections.
    virtual void addTo(InputCounters &sum) const
    {
        sum.accepted += accepted;
        sum.refusedByLimit += limiter.refusedInAll();
        sum.refusedByProxyRule += proxies.refusedInAll();
        sum.withoutHeader += proxies.closedInAll();
        sum.waiting += static_cast<quint64>(waiting.size() + proxies.waiting() + handshakes());
    }

    ConnectionLimiter limiter; // before the guard, which asks it
    AcceptGuard guard;
    ProxyGate proxies;

protected:
    // count: how many accepted connections no thread has taken yet.
    AcceptingServer(QObject *parent, std::function<qsizetype()> count)
        : Base(parent),
          guard(this, std::move(count), [this](qintptr descriptor) { serve(descriptor); }),
          proxies([this](qintptr descriptor, Acceptance acceptance) {
              goOn(descriptor, std::move(acceptance));
          })
    {
        this->setListenBacklogSize(ListenBacklog);
        guard.setGate([this] {
            return !paused && hasRoom() && limiter.mayAccept(handshakes() + proxies.waiting());
        });
    }

    void incomingConnection(qintptr descriptor) final
    {
        Acceptance acceptance = Acceptance::of(descriptor, serving);
        ++accepted;
        limiter.enter(acceptance);
        if (!proxies.isOn()) {
            goOn(descriptor, std::move(acceptance));
            return;
        }
        const QPointer<QObject> self(this); // receivers of the gate's signals may delete it
        if (!proxies.takes(descriptor, acceptance)) {
            goOn(descriptor, std::move(acceptance));
        } else if (self) {
            acceptance.places.clear(); // the gate has others, if it keeps the connection
            guard.accepted();
        }
    }
    // The descriptor of a connection whose endpoints are known, until a thread takes it. The caller
    // is over after this: receivers of the server's signals may delete the server.
    virtual void admit(qintptr descriptor, const Acceptance &acceptance) = 0;
    // How many TLS handshakes go on.
    virtual qsizetype handshakes() const { return 0; }
    // Whether one more can go on, or begin soon: false pauses accepting for some milliseconds.
    virtual bool hasRoom() const { return true; }

    PendingConnections<Waiting> waiting;

private:
    // A connection that the guard has accepted.
    void serve(qintptr descriptor)
    {
        const QPointer<QObject> self(this);
        incomingConnection(descriptor);
        if (self) // as Qt does; the signal is private to its class, but can be invoked by name
            QMetaObject::invokeMethod(this, "newConnection", Qt::DirectConnection);
    }
    // Every connection comes here: at once, or when its header was read.
    void goOn(qintptr descriptor, Acceptance acceptance)
    {
        const QPointer<QObject> self(this); // receivers of the limiter's signals may delete it
        if (!limiter.keeps(acceptance)) {
            ::close(static_cast<int>(descriptor));
            acceptance.places.clear();
            if (self)
                guard.accepted();
            return;
        }
        if (proxies.isOn())
            peers.enter(acceptance);
        admit(descriptor, acceptance);
    }

    Serving serving; // this and below: the server's thread only
    quint64 accepted = 0;
    bool paused = false;
    PeersInUse peers;

    // Length of the kernel's accept queue: a burst of 2,000 devices fits in. A device whose SYN
    // finds the queue full waits a second or more for its retransmission. The kernel limits the
    // length to net.core.somaxconn.
    static constexpr int ListenBacklog = 4096;
};
