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
    enum class AfterWait { Nothing, Close, Reset };
    AfterWait afterWait = AfterWait::Nothing; // another ending, the close an orderly one
    bool ignoreTls = false; // waits for the peer's FIN and does not look at its TLS
    bool reads = true; // false: nothing is read once the connection is open
};

// isLast: the device does not connect again.
Ending endingFor(const Options &options, bool isLast);

// As recorded: stays for restUs, at the options' speed, and then closes or resets.
Ending recordedEnding(const Options &options, qint64 restUs, bool isReset);

Ending resetEnding();

// Waits for the peer to close, and closes after so many milliseconds; -1: no limit.
Ending stay(int ms);

// Sends the end, and waits for that of the peer, at most so many milliseconds; -1: no limit.
Ending halfClose(int ms);

// An ending that loses nothing and takes no longer than necessary.
Ending orderlyClose(const Options &options);

} // namespace simulator
