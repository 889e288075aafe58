// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include "tcpinput/tcpclient2.h"

#include <thread>

// Whether the idle time has begun anew since the last call. From then on it counts as over.
inline bool takeIdleRestart(TcpClient2 &client)
{
    IdleTimer &idle = client.idleTimer();
    const bool restarted = idle.rest() > std::chrono::milliseconds::zero();
    idle.end();
    return restarted;
}

// Comes back only if neither of its locks is held: another thread asks for both.
inline bool holdsNoLock(TcpClient2 &client)
{
    std::thread([&client] {
        client.currentId();
        client.discardTo(0);
    }).join();
    return true;
}
