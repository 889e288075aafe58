// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include <QtCore/QByteArray>
#include <QtNetwork/QHostAddress>

#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>
#include <utility>

/*!
    A device made of one blocking socket, so that any thread can play it without an event loop.
*/
class RawDevice
{
public:
    // Has a descriptor, and is not connected.
    RawDevice() : fd(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {}
    RawDevice(const QHostAddress &address, quint16 port) : RawDevice() { connectTo(address, port); }
    ~RawDevice() { close(); }
    RawDevice(const RawDevice &) = delete;
    RawDevice &operator=(const RawDevice &) = delete;
    RawDevice(RawDevice &&other) noexcept : fd(std::exchange(other.fd, -1)) {}
    RawDevice &operator=(RawDevice &&other) noexcept
    {
        std::swap(fd, other.fd);
        return *this;
    }

    // IPv4 only. Ends the process if the connection is refused.
    void connectTo(const QHostAddress &address, quint16 port) const
    {
        sockaddr_in to{};
        to.sin_family = AF_INET;
        to.sin_addr.s_addr = htonl(address.toIPv4Address());
        to.sin_port = htons(port);
        if (::connect(fd, reinterpret_cast<const sockaddr *>(&to), sizeof to) != 0)
            qFatal("connect: %s", strerror(errno));
    }

    void send(const QByteArray &bytes) const
    {
        for (qsizetype done = 0; done < bytes.size();) {
            const ssize_t sent = ::send(fd, bytes.constData() + done,
                                        static_cast<size_t>(bytes.size() - done), MSG_NOSIGNAL);
            if (sent < 0)
                qFatal("send: %s", strerror(errno));
            done += sent;
        }
    }

    // Ends with FIN.
    void close()
    {
        if (fd >= 0)
            ::close(std::exchange(fd, -1));
    }

    // Ends with RST.
    void abort()
    {
        const linger now{1, 0};
        ::setsockopt(fd, SOL_SOCKET, SO_LINGER, &now, sizeof now);
        close();
    }

private:
    int fd;
};
