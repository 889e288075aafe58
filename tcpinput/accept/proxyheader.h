// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include <QtCore/QByteArray>
#include <QtCore/QByteArrayView>
#include <QtNetwork/QHostAddress>

/*!
    The header, version 1 or 2 of the PROXY protocol, with which a proxy begins a connection: it
    says whose connection the proxy passes on.

    It is read in pieces, and no piece goes beyond its end: what follows are the device's bytes.

    Thread: one.
    Owner:  whoever reads the connection.
*/
class ProxyHeader
{
public:
    enum class State { Incomplete, Complete, Malformed };

    // Longer ones are malformed: nobody sends 4 KiB of extra values.
    static constexpr qsizetype MostBytes = 4096;

    // How many bytes the header has at least, behind those that were appended. More than 0 as long
    // as it is incomplete, otherwise 0.
    qsizetype wanted() const;

    // bytes: the next of the connection; at most wanted().
    State append(QByteArrayView bytes);

    State state() const { return current; }
    bool isEmpty() const { return read.isEmpty(); }

    // Of a complete header: whether it names a peer. If it does not, the connection is the proxy's
    // own (a health check, for example), or the proxy does not know.
    bool hasPeer() const { return !peerAddress.isNull(); }
    QHostAddress peer() const { return peerAddress; }
    quint16 peerPort() const { return port; }

private:
    bool isText() const;
    State stateOfText();
    State stateOfBinary();
    bool readText();
    bool readBinary();
    bool areExtrasGood(qsizetype begin) const;

    QByteArray read; // so far
    State current = State::Incomplete;
    QHostAddress peerAddress;
    quint16 port = 0;
};
