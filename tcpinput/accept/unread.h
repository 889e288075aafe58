// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include <QtCore/QtGlobal>

#include <poll.h>

// Whether the kernel has something of the peer that was not read yet: bytes, its end or a reset.
// descriptor: a connected socket's. Unlike an event, this can be asked at any time.
inline bool hasUnread(qintptr descriptor)
{
    pollfd poller{static_cast<int>(descriptor), POLLIN, 0};
    return ::poll(&poller, 1, 0) == 1;
}
