// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "simulator/tcpsocket.h"

#include <QtCore/QtEndian>

#include <cerrno>
#include <cstring>
#include <linux/sockios.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <system_error>
#include <unistd.h>

namespace simulator {
namespace {

/*!
    A socket address of either family, as the system calls need it.
*/
struct SocketAddress
{
    SocketAddress() = default;
    SocketAddress(const QHostAddress &address, quint16 port);

    sockaddr *raw() { return reinterpret_cast<sockaddr *>(&storage); }
    const sockaddr *raw() const { return reinterpret_cast<const sockaddr *>(&storage); }

    sockaddr_storage storage = {};
    socklen_t length = sizeof(sockaddr_storage);
};

SocketAddress::SocketAddress(const QHostAddress &address, quint16 port)
{
    if (address.protocol() == QAbstractSocket::IPv6Protocol) {
        sockaddr_in6 v6 = {};
        v6.sin6_family = AF_INET6;
        v6.sin6_port = qToBigEndian(port);
        const Q_IPV6ADDR bytes = address.toIPv6Address();
        std::memcpy(&v6.sin6_addr, &bytes, sizeof bytes);
        std::memcpy(&storage, &v6, sizeof v6);
        length = sizeof v6;
        return;
    }
    sockaddr_in v4 = {};
    v4.sin_family = AF_INET;
    v4.sin_port = qToBigEndian(port);
    v4.sin_addr.s_addr = qToBigEndian(address.toIPv4Address());
    std::memcpy(&storage, &v4, sizeof v4);
    length = sizeof v4;
}

int resultOf(int returned)
{
    return returned < 0 ? errno : 0;
}

SocketAddress localOf(int fd)
{
    SocketAddress local;
    getsockname(fd, local.raw(), &local.length);
    return local;
}

} // namespace

QString errorText(int error)
{
    return QString::fromStdString(std::generic_category().message(error));
}

int TcpSocket::connectTo(const QHostAddress &peer, quint16 port, const QHostAddress &source)
{
    const SocketAddress to(peer, port);
    fd = ::socket(to.storage.ss_family, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (fd < 0)
        return errno;

    const int on = 1;
    // Without delay, so that the kernel does not join writes: their cuts are part of the
    // simulation.
    setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    if (!source.isNull()) {
        // connect() then chooses the port, which must be unique for this peer only.
        setsockopt(fd, IPPROTO_IP, IP_BIND_ADDRESS_NO_PORT, &on, sizeof on);
        const SocketAddress from(source, 0);
        if (::bind(fd, from.raw(), from.length) < 0)
            return errno;
    }
    return resultOf(::connect(fd, to.raw(), to.length));
}

int TcpSocket::connectResult() const
{
    int result = 0;
    socklen_t length = sizeof result;
    return getsockopt(fd, SOL_SOCKET, SO_ERROR, &result, &length) < 0 ? errno : result;
}

QHostAddress TcpSocket::localAddress() const
{
    return QHostAddress(localOf(fd).raw());
}

quint16 TcpSocket::localPort() const
{
    const SocketAddress local = localOf(fd);
    in_port_t port = 0; // at the same place in both families
    static_assert(offsetof(sockaddr_in, sin_port) == offsetof(sockaddr_in6, sin6_port));
    std::memcpy(&port,
                reinterpret_cast<const char *>(&local.storage) + offsetof(sockaddr_in, sin_port),
                sizeof port);
    return qFromBigEndian(port);
}

qsizetype TcpSocket::send(const char *data, qsizetype size)
{
    return ::send(fd, data, static_cast<size_t>(size), MSG_NOSIGNAL);
}

qsizetype TcpSocket::receive(char *data, qsizetype size)
{
    return ::recv(fd, data, static_cast<size_t>(size), 0);
}

qsizetype TcpSocket::unacknowledged() const
{
    int bytes = 0;
    return ioctl(fd, SIOCOUTQ, &bytes) < 0 ? 0 : bytes;
}

void TcpSocket::shutdownWrite()
{
    ::shutdown(fd, SHUT_WR);
}

void TcpSocket::reset()
{
    const linger now = {1, 0};
    setsockopt(fd, SOL_SOCKET, SO_LINGER, &now, sizeof now);
    close();
}

void TcpSocket::close()
{
    if (fd >= 0)
        ::close(fd);
    fd = -1;
}

} // namespace simulator
