// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include "tests/kit/hangguard.h"

#include <QtCore/QByteArray>

#include <utility>

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

//! A small pipe in place of one of a program's standard streams. Only read() reads it.
class SmallPipe
{
public:
    SmallPipe()
    {
        if (::pipe2(ends, O_CLOEXEC) != 0 || ::fcntl(ends[1], F_SETPIPE_SZ, 4096) < 0)
            qFatal("no pipe");
    }
    ~SmallPipe()
    {
        ::close(ends[0]);
        closeWriter();
    }
    Q_DISABLE_COPY_MOVE(SmallPipe)

    int writer() const { return ends[1]; }
    void closeWriter()
    {
        if (ends[1] >= 0)
            ::close(std::exchange(ends[1], -1));
    }
    // For much that is to be read quickly.
    void enlarge() const { ::fcntl(ends[1], F_SETPIPE_SZ, 1024 * 1024); }
    bool isFull() const
    {
        pollfd request = {ends[1], POLLOUT, 0};
        return ::poll(&request, 1, 0) == 0;
    }
    // The bytes that are there now. If they are fewer than atLeast, waits for more.
    QByteArray read(qsizetype atLeast = 0) const
    {
        QByteArray result;
        pollfd request = {ends[0], POLLIN, 0};
        while (::poll(&request, 1, result.size() < atLeast ? HangGuardMs : 0) == 1) {
            char buffer[4096];
            const ssize_t size = ::read(ends[0], buffer, sizeof buffer);
            if (size <= 0)
                break;
            result.append(buffer, size);
        }
        return result;
    }

private:
    int ends[2] = {-1, -1};
};
