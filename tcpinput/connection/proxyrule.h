// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include "tcpinput/connection/network.h"

#include <QtCore/QList>

#include <algorithm>

//! Which connections begin with a PROXY header.
struct ProxyRule
{
    bool isProxy(const QHostAddress &peer) const
    {
        return std::any_of(from.begin(), from.end(),
                           [&peer](const Network &network) { return network.contains(peer); });
    }

    QList<Network> from; // the proxies
    int timeoutMs = 5000; // for the whole header, from acceptance on; more than 0
    bool servesOthers = true; // as connections without a header
};
