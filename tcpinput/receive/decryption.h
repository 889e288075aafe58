// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include "tls/session.h"

#include <QtCore/QByteArray>

#include <memory>

/*!
    TLS on a socket that only receives, once the handshake is done: what the socket receives goes
    in, plain bytes come out. What is to be said to the peer is sent at once if the kernel takes it,
    otherwise with the next turn: a peer that does not read loses nothing that it needs.

    Thread: the socket's.
    Owner:  the socket, as a member.
*/
class Decryption
{
public:
    explicit Decryption(std::unique_ptr<tls::Session> established) : session(std::move(established))
    {}

    // received: must stay until endTurn().
    void feed(QByteArrayView received) { session->feed(received); }
    // How many plain bytes were copied. Fewer than most: all records that were fed are used, but
    // for those that are left to the next turn.
    qsizetype read(char *to, qsizetype most);
    // Keeps what is left, and sends what was answered.
    void endTurn(int descriptor);

    // Records were left to the next turn: too many that carry no data came in this one.
    bool hasRest() const { return session->hasRest() && !isOver(); }
    // What was answered could not be sent yet.
    bool hasUnsent() const { return !session->unsent().isEmpty(); }
    // Nothing more can be read: the peer has ended TLS, or it is broken.
    bool isOver() const { return session->isClosed() || isBroken(); }
    bool isBroken() const { return session->isBroken() || flooded; }

    // Tells the peer that nothing follows.
    void end(int descriptor);

private:
    void send(int descriptor);

    const std::unique_ptr<tls::Session> session;
    bool flooded = false; // the peer has asked for more than it has read
};
