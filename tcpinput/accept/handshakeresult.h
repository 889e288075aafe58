// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include "tcpinput/accept/descriptor.h"
#include "tcpinput/connection/acceptance.h"
#include "tls/session.h"

#include <QtNetwork/QAbstractSocket>

#include <memory>

/*!
    What has become of a handshake of our own engine.

    Thread: one at a time.
*/
struct HandshakeResult
{
    enum class Outcome {
        Done,
        Failed,
        TimedOut,
        NoTls, // the first byte was none of TLS
        Silent, // ended before its first byte, which was allowed
        Crowded, // closed to make room: too many handshakes were open
    };

    Acceptance acceptance;
    Outcome outcome = Outcome::Failed;
    bool begun = false; // the first byte was one of TLS
    Descriptor descriptor; // if it is done
    std::unique_ptr<tls::Session> session; // if it is done
    QAbstractSocket::SocketError error = QAbstractSocket::UnknownSocketError; // if it has failed
    tls::HandshakeReport report;
    qint64 ns = 0; // how long it took
};
