// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include <QtCore/QElapsedTimer>
#include <QtCore/QtGlobal>

#include <functional>

#include <sys/types.h>

namespace hostcheck {

/*!
    Waits for the end of a forked process that makes calls, and kills it if a call does not go on:
    if it uses hardly any processor time for long, or so much that it has turned off the clock that
    should have ended it.

    Thread: one at a time.
    Owner:  the caller.
*/
class ChildWatch
{
public:
    // child: not waited for yet. It becomes the leader of a process group, whose processes are
    // killed when it ends. timeLimitMs: processor time of one call, 1 or more. standstillMs: time
    // by the wall clock in which a call has to use a tenth of its limit.
    ChildWatch(pid_t child, int timeLimitMs, int standstillMs);
    ~ChildWatch();
    Q_DISABLE_COPY_MOVE(ChildWatch)

    // False if the kernel does not tell when the child ends: then await() kills it at once.
    bool isUsable() const { return descriptor >= 0; }
    // Returns when the child has ended, with its status as waitpid() gives it. currentCall: the
    // number of the call that the child makes; is asked ten times a second.
    int await(const std::function<size_t()> &currentCall);
    bool hasKilled() const { return isKilled; }

private:
    bool goesOn(size_t call);
    qint64 cpuMs() const;
    void killAll() const;

    const pid_t child;
    const int timeLimitMs;
    const int standstillMs;
    const int descriptor; // readable when the child has ended; -1: none
    bool isKilled = false;
    size_t lastCall = 0;
    qint64 cpuAtCallMs = 0; // the child's, when the call began
    qint64 cpuAtMarkMs = 0; // when it was last seen to go on
    QElapsedTimer sinceMark;
};

} // namespace hostcheck
