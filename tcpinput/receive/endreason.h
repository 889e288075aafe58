// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include <QtCore/QString>

//! Why a connection is over.
enum class EndReason {
    Peer, // the device has closed it
    Reset, // it broke: the device has reset it, or the network has failed
    Idle, // no offer for the idle time-out
    Tls, // what came was no TLS any more
    Limit, // a limit of the configuration
    Stop, // the plugin was stopped or destroyed
};

// As hosts get it.
inline QString textOf(EndReason reason)
{
    switch (reason) {
    case EndReason::Peer:
        return QStringLiteral("peer");
    case EndReason::Reset:
        return QStringLiteral("reset");
    case EndReason::Idle:
        return QStringLiteral("idle");
    case EndReason::Tls:
        return QStringLiteral("tls");
    case EndReason::Limit:
        return QStringLiteral("limit");
    case EndReason::Stop:
        break;
    }
    return QStringLiteral("stop");
}
