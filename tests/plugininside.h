// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include "tcpinput/tcpinputplugin2.h"
#include "tests/clientinside.h"

//! The plugin's private members that a test must see.

struct StatusTimer
{
    using Type = QTimer TcpInputPlugin2::*;
    friend Type memberOf(StatusTimer);
};
template struct ExposedMember<StatusTimer, &TcpInputPlugin2::statusTimer>;

struct TaskIndex
{
    using Type = int TcpInputPlugin2::*;
    friend Type memberOf(TaskIndex);
};
template struct ExposedMember<TaskIndex, &TcpInputPlugin2::taskIndex>;

struct Tasks
{
    using Type = QMap<int, TcpTask2 *> TcpInputPlugin2::*;
    friend Type memberOf(Tasks);
};
template struct ExposedMember<Tasks, &TcpInputPlugin2::tasks>;

struct Threads
{
    using Type = QMap<int, QThread *> TcpInputPlugin2::*;
    friend Type memberOf(Threads);
};
template struct ExposedMember<Threads, &TcpInputPlugin2::threads>;

inline const QTimer &statusTimerOf(TcpInputPlugin2 &plugin)
{
    return plugin.*memberOf(StatusTimer{});
}

inline int taskIndexOf(const TcpInputPlugin2 &plugin)
{
    return plugin.*memberOf(TaskIndex{});
}

inline const QMap<int, TcpTask2 *> &tasksOf(TcpInputPlugin2 &plugin)
{
    return plugin.*memberOf(Tasks{});
}

inline const QMap<int, QThread *> &threadsOf(TcpInputPlugin2 &plugin)
{
    return plugin.*memberOf(Threads{});
}
