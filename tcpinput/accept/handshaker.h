// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include "tcpinput/accept/handshakeresult.h"

#include <QtCore/QElapsedTimer>
#include <QtCore/QHash>
#include <QtCore/QSocketNotifier>
#include <QtCore/QTimer>
#include <QtNetwork/QHostAddress>

#include <deque>
#include <functional>
#include <list>
#include <memory>

namespace tls {
class Context;
}

/*!
    Carries out the handshakes of one thread.

    A step of a handshake can take a millisecond. So addresses take turns, one step each, however
    many connections one of them has opened. At most so many handshakes are open; for one more, that
    address loses which has most, and of its handshakes the one that has made no progress for the
    longest time.

    Thread: the one it lives in.
    Owner:  the maker, who ends the thread first.
*/
class Handshaker : public QObject
{
    Q_OBJECT

public:
    //! How a connection is to be encrypted.
    struct Terms
    {
        std::shared_ptr<const tls::Context> context;
        int timeoutMs; // until the first byte, and again from then on; more than 0
        int mostOpen; // handshakes of this thread; more than 0
    };
    // Called when a handshake is over, in this object's thread.
    using Taker = std::function<void(HandshakeResult result)>;

    explicit Handshaker(Taker taker);
    ~Handshaker() override;

    void begin(Descriptor descriptor, Acceptance acceptance, const Terms &terms);

private:
    struct Open;
    //! The handshakes of an address.
    struct Peers
    {
        std::list<Open *> open; // the one without progress for the longest time is the first
        std::deque<Open *> ready; // bytes or the end have come
    };
    using Outcome = HandshakeResult::Outcome;

    void makeRoom(int mostOpen);
    void enqueue(Open &handshake);
    void takeTurn();
    void step(Open &handshake);
    void goOn(Open &handshake, QByteArrayView received);
    bool send(Open &handshake);
    void endByPeer(Open &handshake);
    void fail(Open &handshake, Outcome outcome, QAbstractSocket::SocketError error,
              const QString &text = {});
    void end(Open &handshake, Outcome outcome);
    void forget(Open &handshake);
    void restartClock(Open &handshake);
    void startTimer();
    void closeLate();
    static QByteArray keyOf(const QHostAddress &peer);

    const Taker take;
    std::list<Open> all; // in the order of their deadlines, unless the time-out has changed
    QHash<QByteArray, Peers> peers; // by address
    std::deque<QByteArray> turns; // addresses with ready handshakes, each once
    QTimer turnTimer; // runs while there are any
    QTimer deadlineTimer;
    quint64 steps = 0; // counts progress
    QByteArray buffer;
};
