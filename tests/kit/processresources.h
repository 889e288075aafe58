// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include <QtCore/QByteArray>
#include <QtCore/QDir>

#include <algorithm>

#include <sys/resource.h>
#include <unistd.h>

// What this process holds, counted by the kernel.
inline qsizetype entriesOf(const QString &folder)
{
    return QDir(folder).entryList(QDir::AllEntries | QDir::System | QDir::NoDotAndDotDot).size();
}

inline qsizetype openDescriptors()
{
    return entriesOf(QStringLiteral("/proc/self/fd"));
}

// Includes the sockets that the process was started with.
inline qsizetype openSockets()
{
    const QDir folder(QStringLiteral("/proc/self/fd"));
    const QStringList names = folder.entryList(QDir::AllEntries | QDir::System);
    return std::count_if(names.begin(), names.end(), [&folder](const QString &name) {
        char target[64];
        const ssize_t length = ::readlink(qPrintable(folder.filePath(name)), target, sizeof target);
        return length > 0 && QByteArray(target, length).startsWith("socket:");
    });
}

inline qsizetype runningThreads()
{
    return entriesOf(QStringLiteral("/proc/self/task"));
}

// Raises the limit as far as the system allows: the usual 1,024 are too few for some tests. False
// if the new limit is less than needed.
inline bool raiseDescriptorLimit(rlim_t needed)
{
    rlimit limit{};
    ::getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = limit.rlim_max;
    return ::setrlimit(RLIMIT_NOFILE, &limit) == 0 && limit.rlim_cur >= needed;
}
