// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include <QtCore/QThread>

// The calling thread's id as the number that log lines show.
inline long currentThreadNumber()
{
    return reinterpret_cast<long>(QThread::currentThreadId());
}
