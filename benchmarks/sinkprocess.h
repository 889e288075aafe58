// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include <csignal>
#include <sys/resource.h>
#include <sys/signalfd.h>

//! What both sinks ask of the system.

// Returns a descriptor that becomes readable when the process is told to stop. Call before any
// thread is made: threads inherit the blocked signals.
inline int openStopSignal()
{
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    return signalfd(-1, &signals, SFD_CLOEXEC);
}

// Every connection takes a descriptor; the usual soft limit is 1024.
inline void raiseDescriptorLimit()
{
    rlimit limit = {};
    if (getrlimit(RLIMIT_NOFILE, &limit) != 0)
        return;
    limit.rlim_cur = limit.rlim_max;
    setrlimit(RLIMIT_NOFILE, &limit);
}
