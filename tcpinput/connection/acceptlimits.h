// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include "tcpinput/connection/network.h"

#include <QtCore/QList>

//! How many connections are taken, and how fast. 0: no limit.
struct AcceptLimits
{
    int connections = 0; // open at the same time
    int connectionsPerAddress = 0; // likewise, of one address
    int ipv4Bits = 32; // of an address that count: all that are equal in them are one, 1 to 32
    int ipv6Bits = 64; // 1 to 128
    QList<Network> exempt; // from connectionsPerAddress
    int handshakes = 0; // TLS handshakes at the same time
    int handshakeTimeoutMs = 5000; // Qt's default; more than 0
    int perSecond = 0; // accepted, on the average
    int burst = 0; // accepted at once after a quiet time; 0: perSecond

    bool areOn() const
    {
        return connections > 0 || connectionsPerAddress > 0 || handshakes > 0 || perSecond > 0;
    }
};
