// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include "tcpinput/backlogwatch.h"
#include "tcpinput/tcpclient2.h"

#include <chrono>
#include <utility>

//! The private members of a client and its watch that a test must see. The instantiations below may
//! name them.
template<class Name, typename Name::Type Pointer>
struct ExposedMember
{
    friend typename Name::Type memberOf(Name) { return Pointer; }
};

struct IdleTimer
{
    using Type = QTimer TcpClient2::*;
    friend Type memberOf(IdleTimer);
};
template struct ExposedMember<IdleTimer, &TcpClient2::idleTimer>;

struct CheckTimer
{
    using Type = QTimer TcpClient2::*;
    friend Type memberOf(CheckTimer);
};
template struct ExposedMember<CheckTimer, &TcpClient2::checkTimer>;

struct SocketMutex
{
    using Type = QMutex TcpClient2::*;
    friend Type memberOf(SocketMutex);
};
template struct ExposedMember<SocketMutex, &TcpClient2::socketMutex>;

struct InbufLock
{
    using Type = QReadWriteLock TcpClient2::*;
    friend Type memberOf(InbufLock);
};
template struct ExposedMember<InbufLock, &TcpClient2::inbufLock>;

struct Active
{
    using Type = std::chrono::steady_clock::time_point TcpClient2::*;
    friend Type memberOf(Active);
};
template struct ExposedMember<Active, &TcpClient2::active>;

struct WatchTimer
{
    using Type = QBasicTimer BacklogWatch::*;
    friend Type memberOf(WatchTimer);
};
template struct ExposedMember<WatchTimer, &BacklogWatch::timer>;

// Whether the idle time has begun anew since the last call. From then on it counts as over.
inline bool takeIdleRestart(TcpClient2 &client)
{
    using Time = std::chrono::steady_clock::time_point;
    // The clock begins when the machine is started. This is longer ago than any time-out: those are
    // ints, of milliseconds.
    constexpr Time LongAgo = Time() - std::chrono::hours(24 * 25);
    return std::exchange(client.*memberOf(Active{}), LongAgo) != LongAgo;
}

inline QTimer &idleTimerOf(TcpClient2 &client)
{
    return client.*memberOf(IdleTimer{});
}

inline QTimer &checkTimerOf(TcpClient2 &client)
{
    return client.*memberOf(CheckTimer{});
}

inline const QBasicTimer &timerOf(BacklogWatch &watch)
{
    return watch.*memberOf(WatchTimer{});
}

// Whether neither of its locks is held, by this thread or another.
inline bool holdsNoLock(TcpClient2 &client)
{
    QMutex &mutex = client.*memberOf(SocketMutex{});
    QReadWriteLock &lock = client.*memberOf(InbufLock{});
    const bool mutexIsFree = mutex.tryLock();
    if (mutexIsFree)
        mutex.unlock();
    const bool lockIsFree = lock.tryLockForWrite();
    if (lockIsFree)
        lock.unlock();
    return mutexIsFree && lockIsFree;
}
