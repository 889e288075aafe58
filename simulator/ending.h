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

    bool closeNotify = false; // does nothing without TLS
    bool shutdownWrite = false;
    Then then = Then::Close;
    int waitMs = -1; // for the peer; -1: no limit
    bool closeAfterWait = false; // after the wait comes another ending: an orderly close
    bool ignoreTls = false; // waits for the peer's FIN and does not look at its TLS
    bool reads = true; // false: nothing is read once the connection is open
};

// isLast: the device does not connect again.
Ending endingFor(const Options &options, bool isLast);

// An ending that loses nothing and takes no longer than necessary.
Ending orderlyClose(const Options &options);

} // namespace simulator
