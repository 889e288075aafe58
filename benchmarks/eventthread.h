// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include "eventloop/epolleventdispatcher.h"

#include <QtCore/QThread>

#include <functional>
#include <memory>

#include <sys/resource.h>

enum DispatcherKind { Ours, Qts }; // as arguments of benchmarks

// Calls the function in a thread that has an event dispatcher of the kind, and waits for its end.
inline void runInEventThread(DispatcherKind kind, const std::function<void()> &function)
{
    const std::unique_ptr<QThread> thread(QThread::create(function));
    if (kind == Ours)
        thread->setEventDispatcher(EpollEventDispatcher::create().release());
    thread->start();
    thread->wait();
}

inline const char *dispatcherName(DispatcherKind kind)
{
    return kind == Ours ? "ours" : "Qt's";
}

// Thousands of sockets take more descriptors than the usual soft limit.
inline void raiseDescriptorLimit()
{
    rlimit limit = {};
    getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = limit.rlim_max;
    setrlimit(RLIMIT_NOFILE, &limit);
}
