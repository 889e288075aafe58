// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include "tcpinput/accept/handshakeresult.h"
#include "tcpinput/accept/openhandshakes.h"

#include <QtCore/QElapsedTimer>
#include <QtCore/QHash>
#include <QtCore/QList>
#include <QtCore/QSocketNotifier>
#include <QtCore/QTimer>

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
    many connections one of them has opened. At most so many handshakes wait for their peers; if
    there are more, some of them go: see OpenHandshakes. Those that wait for this thread stay.

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
        int mostOpen; // handshakes of this thread that wait for their peers; more than 0
    };
    // Called when a handshake is over, in this object's thread.
    using Taker = std::function<void(HandshakeResult result)>;

    explicit Handshaker(Taker taker);
    ~Handshaker() override;

    void begin(Descriptor descriptor, Acceptance acceptance, const Terms &terms);

private:
    struct Open;
    using Outcome = HandshakeResult::Outcome;

    void makeRoom();
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

    const Taker take;
    std::list<Open> all; // in the order of their deadlines, unless the time-out has changed
    OpenHandshakes<Open *> open; // the same
    QHash<QByteArray, QList<Open *>> ready; // by address: bytes or the end have come. None is empty
    std::deque<QByteArray> turns; // addresses with ready handshakes, each once
    QTimer turnTimer; // runs while there are any
    QTimer deadlineTimer;
    QTimer roomTimer; // runs while more are open than may wait for their peers
    int mostOpen = 0; // that may wait for their peers, as the latest terms say
    QByteArray buffer;
};
