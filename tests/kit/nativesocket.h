// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include "tests/kit/hangguard.h"

#include <QtCore/QByteArray>
#include <QtCore/QDeadlineTimer>
#include <QtCore/QThread>
#include <QtNetwork/QHostAddress>

#include <arpa/inet.h>
#include <net/if.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <utility>

//! An address in the form that socket calls need.
struct NativeAddress
{
    NativeAddress() = default;
    NativeAddress(const QHostAddress &address, quint16 port)
    {
        if (address.protocol() == QAbstractSocket::IPv6Protocol) {
            auto &v6 = reinterpret_cast<sockaddr_in6 &>(storage);
            v6.sin6_family = AF_INET6;
            v6.sin6_port = htons(port);
            v6.sin6_scope_id = if_nametoindex(qPrintable(address.scopeId()));
            const Q_IPV6ADDR bytes = address.toIPv6Address();
            std::copy(std::begin(bytes.c), std::end(bytes.c), v6.sin6_addr.s6_addr);
            length = sizeof v6;
        } else {
            auto &v4 = reinterpret_cast<sockaddr_in &>(storage);
            v4.sin_family = AF_INET;
            v4.sin_port = htons(port);
            v4.sin_addr.s_addr = htonl(address.toIPv4Address());
            length = sizeof v4;
        }
    }

    sockaddr *data() { return reinterpret_cast<sockaddr *>(&storage); }
    quint16 port() const
    {
        return ntohs(storage.ss_family == AF_INET6
                             ? reinterpret_cast<const sockaddr_in6 &>(storage).sin6_port
                             : reinterpret_cast<const sockaddr_in &>(storage).sin_port);
    }

    sockaddr_storage storage{};
    socklen_t length = sizeof(sockaddr_storage);
};

/*!
    A blocking TCP socket without an event loop: the device's end of a connection, or a listener.

    Thread: any, one at a time.
    Owner:  of its descriptor.
*/
class NativeSocket
{
public:
    NativeSocket() = default;
    explicit NativeSocket(int descriptor) : fd(descriptor) {}
    ~NativeSocket() { close(); }
    NativeSocket(NativeSocket &&other) noexcept : fd(other.release()) {}
    NativeSocket &operator=(NativeSocket &&other) noexcept
    {
        std::swap(fd, other.fd);
        return *this;
    }

    // All of these yield an invalid socket if they fail.
    static NativeSocket unconnected(const QHostAddress &forAddress)
    {
        const bool v6 = forAddress.protocol() == QAbstractSocket::IPv6Protocol;
        NativeSocket result(::socket(v6 ? AF_INET6 : AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
        const timeval guard{HangGuardMs / 1000, 0};
        ::setsockopt(result.fd, SOL_SOCKET, SO_RCVTIMEO, &guard, sizeof guard);
        ::setsockopt(result.fd, SOL_SOCKET, SO_SNDTIMEO, &guard, sizeof guard);
        result.setOption(IPPROTO_TCP, TCP_NODELAY, 1);
        return result;
    }
    // receiveBuffer: size for accepted sockets, if the kernel grants it; 0: the kernel's default.
    static NativeSocket listening(const QHostAddress &address, int receiveBuffer = 0)
    {
        NativeSocket result = unconnected(address);
        if (receiveBuffer > 0)
            result.setOption(SOL_SOCKET, SO_RCVBUF, receiveBuffer);
        if (!result.bind(address, 0) || ::listen(result.fd, 16) != 0)
            result.close();
        return result;
    }
    static NativeSocket connectedTo(const QHostAddress &address, quint16 port)
    {
        NativeSocket result = unconnected(address);
        if (!result.connect(address, port))
            result.close();
        return result;
    }
    NativeSocket accept() const
    {
        return NativeSocket(::accept4(fd, nullptr, nullptr, SOCK_CLOEXEC));
    }

    bool bind(const QHostAddress &address, quint16 port)
    {
        setOption(SOL_SOCKET, SO_REUSEADDR, 1);
        NativeAddress native(address, port);
        return ::bind(fd, native.data(), native.length) == 0;
    }
    bool connect(const QHostAddress &address, quint16 port)
    {
        NativeAddress native(address, port);
        return ::connect(fd, native.data(), native.length) == 0;
    }

    bool isValid() const { return fd >= 0; }
    int descriptor() const { return fd; }
    int release() { return std::exchange(fd, -1); }
    quint16 localPort() const
    {
        NativeAddress native;
        return ::getsockname(fd, native.data(), &native.length) == 0 ? native.port() : quint16(0);
    }

    // With one system call.
    bool send(const QByteArray &bytes) const
    {
        return ::send(fd, bytes.constData(), size_t(bytes.size()), MSG_NOSIGNAL) == bytes.size();
    }
    // Sends a FIN: no more bytes from here. The other end can still send.
    void finish() const { ::shutdown(fd, SHUT_WR); }
    void close()
    {
        if (isValid())
            ::close(release());
    }
    void reset()
    {
        const linger abort{1, 0};
        ::setsockopt(fd, SOL_SOCKET, SO_LINGER, &abort, sizeof abort);
        close();
    }

    // True when the other end has closed or reset the connection.
    bool ends() const
    {
        char byte = 0;
        const ssize_t count = ::recv(fd, &byte, 1, 0);
        return count == 0 || (count < 0 && errno == ECONNRESET);
    }

    // Bytes that have arrived at a descriptor and have not been read; -1: unknown.
    static int arrived(int descriptor)
    {
        int count = 0;
        return ::ioctl(descriptor, FIONREAD, &count) == 0 ? count : -1;
    }
    static bool waitForArrival(int descriptor, int bytes)
    {
        return waitFor([=] { return arrived(descriptor) == bytes; });
    }
    // The size of the receive buffer, including the kernel's own overhead.
    static int receiveBuffer(int descriptor)
    {
        int size = 0;
        socklen_t length = sizeof size;
        ::getsockopt(descriptor, SOL_SOCKET, SO_RCVBUF, &size, &length);
        return size;
    }
    // True when the peer has closed or reset the connection. There may still be unread bytes.
    static bool waitForPeerEnd(int descriptor)
    {
        pollfd poller{descriptor, POLLRDHUP, 0};
        return ::poll(&poller, 1, HangGuardMs) == 1;
    }
    // Polls: for states without a notification.
    template<class Condition>
    static bool waitFor(Condition condition)
    {
        const QDeadlineTimer deadline(HangGuardMs);
        while (!condition()) {
            if (deadline.hasExpired())
                return false;
            QThread::usleep(100);
        }
        return true;
    }

private:
    void setOption(int level, int option, int value) const
    {
        ::setsockopt(fd, level, option, &value, sizeof value);
    }

    int fd = -1;
};

//! Both ends of a connection.
struct SocketPair
{
    NativeSocket device;
    NativeSocket accepted;
    quint16 localPort = 0; // the accepted end's
    quint16 peerPort = 0; // the device's

    // With port 0 the kernel chooses the device's. receiveBuffer: the accepted end's, see
    // NativeSocket::listening().
    static SocketPair connected(const QHostAddress &local, const QHostAddress &peer,
                                quint16 devicePort = 0, int receiveBuffer = 0)
    {
        SocketPair result;
        const NativeSocket listener = NativeSocket::listening(local, receiveBuffer);
        result.localPort = listener.localPort();
        result.device = NativeSocket::unconnected(local);
        if (result.device.bind(peer, devicePort) && result.device.connect(local, result.localPort))
            result.accepted = listener.accept();
        result.peerPort = result.device.localPort();
        return result;
    }
};
