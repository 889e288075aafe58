// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include "tcpinput/tcpclient2.h"
#include "tests/kit/otherthread.h"

// Whether the idle time has begun anew since the last call. Then ends it, so that the next
// beginning shows.
inline bool takeIdleRestart(TcpClient2 &client)
{
    IdleTimer &idle = client.idleTimer();
    const bool restarted = idle.rest() > std::chrono::milliseconds::zero();
    idle.end();
    return restarted;
}

// Whether another thread can take both of the client's locks.
inline bool holdsNoLock(TcpClient2 &client)
{
    return returnsInAnotherThread([&client] {
        client.currentId();
        client.discardTo(0);
    });
}
