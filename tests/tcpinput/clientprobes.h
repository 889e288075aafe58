// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include "tcpinput/tcpclient2.h"
#include "tests/kit/otherthread.h"

// Whether the idle time has begun anew since the last call. From then on it counts as over.
inline bool takeIdleRestart(TcpClient2 &client)
{
    IdleTimer &idle = client.idleTimer();
    const bool restarted = idle.rest() > std::chrono::milliseconds::zero();
    idle.end();
    return restarted;
}

// Another thread asks for both of its locks.
inline bool holdsNoLock(TcpClient2 &client)
{
    return returnsInAnotherThread([&client] {
        client.currentId();
        client.discardTo(0);
    });
}
