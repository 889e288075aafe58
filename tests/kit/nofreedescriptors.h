// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include <QtCore/QtGlobal>

#include <sys/resource.h>
#include <unistd.h>

#include <vector>

/*!
    During its lifetime this process has no free file descriptors, except those given back.

    Thread: any; it affects all threads.
*/
class NoFreeDescriptors
{
public:
    NoFreeDescriptors()
    {
        ::getrlimit(RLIMIT_NOFILE, &before);
        // A low limit, so that few descriptors fill it. Those in use stay valid above it.
        const int lowestFree = ::dup(STDERR_FILENO);
        rlimit lowered = before;
        lowered.rlim_cur = static_cast<rlim_t>(lowestFree) + 16;
        ::setrlimit(RLIMIT_NOFILE, &lowered);
        for (int fd = lowestFree; fd >= 0; fd = ::dup(STDERR_FILENO))
            held.push_back(fd);
    }
    ~NoFreeDescriptors()
    {
        giveBack(held.size());
        ::setrlimit(RLIMIT_NOFILE, &before);
    }
    Q_DISABLE_COPY_MOVE(NoFreeDescriptors)

    void giveBack(std::size_t count)
    {
        for (; count > 0 && !held.empty(); --count) {
            ::close(held.back());
            held.pop_back();
        }
    }

private:
    rlimit before{};
    std::vector<int> held;
};
