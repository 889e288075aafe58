// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include <cstdint>

#include <netinet/in.h>
#include <sys/socket.h>

// A non-blocking socket that listens on the port of 127.0.0.1, or a negative number: see errno.
inline int listenOn(std::uint16_t port)
{
    constexpr int backlog = 4096;
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    const int on = 1;
    setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    const auto *generic = reinterpret_cast<const sockaddr *>(&address);
    if (bind(fd, generic, sizeof address) != 0 || listen(fd, backlog) != 0)
        return -1;
    return fd;
}
