// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include <QtCore/QDir>

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
