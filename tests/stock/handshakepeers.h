// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include "tests/kit/tlsdevice.h"

#include <QtCore/QJsonObject>

#include <functional>
#include <vector>

/*!
    Peers whose handshakes fail, each in its own way, and the servers that they need for that.
*/
namespace handshakepeers {

//! A connected peer, for the function that plays it.
struct Peer
{
    TlsDevice &device;
    const std::function<void()> &fence; // returns when the server has read what was sent before
};

struct Cause
{
    const char *name;
    std::function<void(Peer &)> play;
    // Keys of "ssl" that replace those of a good server; null removes one.
    QJsonObject server = {};
    // Played in the plugin's thread: all of it is over when the server begins to look.
    bool beforeServerLooks = false;
    bool timesOut = false;
    bool dependsOnVersion = true;
};

// version: of the peer, TLS1_2_VERSION or TLS1_3_VERSION.
std::vector<Cause> causes(int version);

} // namespace handshakepeers
