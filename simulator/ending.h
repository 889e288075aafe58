// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include "simulator/options.h"

namespace simulator {

/*!
    The steps by which a connection ends once everything is sent.
*/
struct Ending
{
    enum class Then {
        Close,
        AwaitPeer, // then close
        Reset, // after the peer's kernel has acknowledged everything
    };

    bool closeNotify = false; // nothing without TLS
    bool shutdownWrite = false;
    Then then = Then::Close;
    int waitMs = -1; // for the peer; -1: no limit
    bool closeAfterWait = false; // what follows the wait is another ending: an orderly close
    bool ignoreTls = false; // waits for the peer's FIN, whatever its TLS says
    bool reads = true; // false: from the handshake on nothing is read
};

// isLast: the device does not connect again.
Ending endingFor(const Options &options, bool isLast);

// Loses nothing, and lasts no longer than that takes.
Ending orderlyClose(const Options &options);

} // namespace simulator
