// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "hostcheck/parser/childwatch.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <ctime>

#include <poll.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

namespace hostcheck {
namespace {

constexpr int IntervalMs = 100;

} // namespace

// The group is set here and in the child: whoever comes first.
ChildWatch::ChildWatch(pid_t process, int limitMs, int longestStandstillMs)
    : child(process),
      timeLimitMs(limitMs),
      standstillMs(longestStandstillMs),
      descriptor(static_cast<int>(syscall(SYS_pidfd_open, process, 0)))
{
    setpgid(child, child);
    sinceMark.start();
}

ChildWatch::~ChildWatch()
{
    if (descriptor >= 0)
        close(descriptor);
}

int ChildWatch::await(const std::function<size_t()> &currentCall)
{
    pollfd ended = {descriptor, POLLIN, 0};
    isKilled = !isUsable();
    if (isKilled)
        killAll();
    while (isUsable() && poll(&ended, 1, IntervalMs) <= 0) {
        if (goesOn(currentCall()))
            continue;
        isKilled = true;
        killAll();
    }
    // Not waited for yet, so its number is still its own and its group's.
    killAll();
    int status = 0;
    while (waitpid(child, &status, 0) < 0 && errno == EINTR) {}
    return status;
}

bool ChildWatch::goesOn(size_t call)
{
    const qint64 cpuNowMs = cpuMs();
    const bool isNew = call != lastCall;
    if (isNew)
        cpuAtCallMs = cpuNowMs;
    if (isNew || cpuNowMs - cpuAtMarkMs >= std::max(timeLimitMs / 10, 1)) {
        cpuAtMarkMs = cpuNowMs;
        sinceMark.start();
    }
    lastCall = call;
    return sinceMark.elapsed() < standstillMs
            && cpuNowMs - cpuAtCallMs < qint64(timeLimitMs) + standstillMs;
}

qint64 ChildWatch::cpuMs() const
{
    clockid_t clock = {};
    timespec used = {};
    if (clock_getcpuclockid(child, &clock) != 0 || clock_gettime(clock, &used) != 0)
        return cpuAtMarkMs;
    return qint64(used.tv_sec) * 1000 + used.tv_nsec / 1000000;
}

// The child itself, too: it may have left the group.
void ChildWatch::killAll() const
{
    kill(-child, SIGKILL);
    kill(child, SIGKILL);
}

} // namespace hostcheck
