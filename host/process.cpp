// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "host/process.h"

#include "plugin/cwrn.h"

#include <csignal>
#include <cstdlib>

#include <fcntl.h>
#include <malloc.h>
#include <sys/resource.h>
#include <unistd.h>

namespace host {

void raiseDescriptorLimit()
{
    rlimit limit = {};
    if (::getrlimit(RLIMIT_NOFILE, &limit) != 0 || limit.rlim_cur == limit.rlim_max)
        return;

    const rlim_t soft = limit.rlim_cur;
    limit.rlim_cur = limit.rlim_max;
    if (::setrlimit(RLIMIT_NOFILE, &limit) != 0) {
        CWRN(QtWarningMsg, QStringLiteral("Cannot raise the limit of %1 descriptors"), soft);
        return;
    }
    CWRN(QtDebugMsg, QStringLiteral("Limit of descriptors raised from %1 to %2"), soft,
         limit.rlim_max);
}

void ignoreBrokenPipes()
{
    std::signal(SIGPIPE, SIG_IGN);
}

void occupyStandardDescriptors()
{
    for (int descriptor = STDIN_FILENO; descriptor <= STDERR_FILENO; ++descriptor) {
        if (::fcntl(descriptor, F_GETFD) != -1)
            continue;
        // open() gives the lowest number that is free.
        ::open("/dev/null", descriptor == STDERR_FILENO ? O_WRONLY : O_RDONLY);
    }
}

void settleTimeZone()
{
    constexpr int KeepGiven = 0;
    ::setenv("TZ", ":/etc/localtime", KeepGiven);
}

void settleMemory()
{
    constexpr int LargeBytes = 256 * 1024;
    ::mallopt(M_MMAP_THRESHOLD, LargeBytes);
}

} // namespace host
