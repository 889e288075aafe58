// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include <QtCore/QtGlobal>

namespace host {

//! What the system tells of this process. A value; 0 stands for what it does not tell.
struct ProcessFigures
{
    qint64 residentBytes = 0;
    qint64 virtualBytes = 0;
    double cpuSeconds = 0; // of all threads, in user and system mode
    double startTime = 0; // seconds since the epoch
    qint64 threads = 0;
    qint64 openFiles = 0;
    qint64 maxFiles = 0; // the soft limit

    // Reads /proc. With thousands of open files that takes milliseconds: not in the host's thread.
    static ProcessFigures read();
};

} // namespace host
