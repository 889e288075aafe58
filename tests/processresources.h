// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include <QtCore/QDir>

#include <sys/resource.h>

// What this process holds, as the kernel counts it.
inline qsizetype entriesOf(const QString &folder)
{
    return QDir(folder).entryList(QDir::AllEntries | QDir::System | QDir::NoDotAndDotDot).size();
}

inline qsizetype openDescriptors()
{
    return entriesOf(QStringLiteral("/proc/self/fd"));
}

inline qsizetype runningThreads()
{
    return entriesOf(QStringLiteral("/proc/self/task"));
}

// As far as the system allows: the usual limit of 1,024 is too low for some tests. False if that is
// less than needed.
inline bool raiseDescriptorLimit(rlim_t needed)
{
    rlimit limit{};
    ::getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = limit.rlim_max;
    return ::setrlimit(RLIMIT_NOFILE, &limit) == 0 && limit.rlim_cur >= needed;
}
