// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include "tcpinput/accept/handshaker.h"

#include <QtCore/QObject>

#include <algorithm>
#include <functional>
#include <memory>
#include <vector>

class WorkerThread;

/*!
    The threads that carry out a server's handshakes, so that its own thread need not. They are made
    when the first connections come. While there is none and none can be had, for want of
    descriptors, the server's thread does it.

    Thread: the server's.
    Owner:  the server, as a member.
*/
class HandshakeThreads : public QObject
{
    Q_OBJECT

public:
    // Called in the server's thread, in a later pass of its event loop. May call drop(), and may
    // delete this.
    using Taker = std::function<void(HandshakeResult &result)>;

    explicit HandshakeThreads(Taker taker);
    ~HandshakeThreads() override;

    // How many threads there are at most, from the next handshake on; more than 0. Default: 1.
    void setSize(int value) { size = value; }
    // How many handshakes may be open in all threads; more than 0.
    void setMostOpen(int value) { mostOpen = value; }

    void begin(Descriptor descriptor, Acceptance acceptance,
               std::shared_ptr<const tls::Context> context, int timeoutMs);
    // Begun, and not reported.
    qsizetype open() const { return opened; }
    // How many of them are too many: those to be closed for them have sent what waits here.
    qsizetype excess() const { return std::max<qsizetype>(opened - mostOpen, 0); }
    // Closes all connections whose handshake was not reported. Waits until the threads have ended:
    // each first finishes the step in hand.
    void drop();
    // How often that was called.
    quint64 drops() const { return generation; }

private:
    struct Place;

    Handshaker &next();
    Place makePlace(std::unique_ptr<WorkerThread> thread);
    void report(quint64 generation, HandshakeResult &result);

    const Taker take;
    int size = 1;
    int mostOpen = MostOpenHandshakes;
    std::vector<Place> places; // each has a thread
    std::unique_ptr<Place> withoutThread; // what it has begun it ends, also when there are threads
    std::size_t latest = 0; // whose turn it was
    qsizetype opened = 0;
    quint64 generation = 0; // counts drop(): what was begun before is not reported
};
