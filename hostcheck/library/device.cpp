// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "hostcheck/library/device.h"

#include "hostcheck/library/require.h"

#include <cerrno>
#include <cstring>

#include <arpa/inet.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

namespace hostcheck {
namespace {

Failure lastError(const char *what)
{
    return Failure{QStringLiteral("device: %1: %2")
                           .arg(QLatin1String(what), QString::fromLocal8Bit(strerror(errno)))};
}

} // namespace

Device::Device(const QHostAddress &address, quint16 port)
    : descriptor(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0))
{
    sockaddr_in peer = {};
    peer.sin_family = AF_INET;
    peer.sin_port = htons(port);
    peer.sin_addr.s_addr = htonl(address.toIPv4Address());
    if (connect(descriptor, reinterpret_cast<sockaddr *>(&peer), sizeof peer) != 0) {
        const int reason = errno;
        close();
        errno = reason;
        throw lastError("connect");
    }
    const int noDelay = 1; // each send is on its way at once
    setsockopt(descriptor, IPPROTO_TCP, TCP_NODELAY, &noDelay, sizeof noDelay);
    sockaddr_in own = {};
    socklen_t size = sizeof own;
    getsockname(descriptor, reinterpret_cast<sockaddr *>(&own), &size);
    local = QHostAddress(ntohl(own.sin_addr.s_addr));
    localPort = ntohs(own.sin_port);
}

Device::~Device()
{
    close();
}

void Device::send(const QByteArray &bytes)
{
    const ssize_t sent = ::send(descriptor, bytes.constData(), static_cast<size_t>(bytes.size()),
                                MSG_NOSIGNAL | MSG_DONTWAIT);
    if (sent != bytes.size())
        throw lastError("send");
}

void Device::close()
{
    if (descriptor >= 0)
        ::close(descriptor);
    descriptor = -1;
}

void Device::reset()
{
    const linger none = {1, 0};
    setsockopt(descriptor, SOL_SOCKET, SO_LINGER, &none, sizeof none);
    close();
}

bool Device::isEnded() const
{
    char byte = 0;
    const ssize_t received = recv(descriptor, &byte, 1, MSG_DONTWAIT | MSG_PEEK);
    return received == 0 || (received < 0 && errno != EAGAIN && errno != EINTR);
}

} // namespace hostcheck
