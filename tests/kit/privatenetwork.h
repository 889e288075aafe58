// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include <QtCore/QByteArray>
#include <QtNetwork/QHostAddress>

#include <cstring>
#include <net/if.h>
#include <netinet/in.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

/*!
    A network that only this process uses. It has just a loopback interface, all ports are free, and
    adding or removing an address disturbs no other process.
*/
namespace PrivateNetwork {

// Runs a request on the named interface. Use the labels "lo:1", "lo:2", ... for more addresses.
inline bool control(unsigned long request, const QByteArray &name, ifreq data)
{
    std::strncpy(data.ifr_name, name.constData(), IFNAMSIZ - 1);
    const int fd = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    const bool done = ::ioctl(fd, request, &data) == 0;
    ::close(fd);
    return done;
}

// 0.0.0.0 removes the address.
inline bool setAddress(const QByteArray &name, const QHostAddress &address)
{
    ifreq data{};
    auto &to = reinterpret_cast<sockaddr_in &>(data.ifr_addr);
    to.sin_family = AF_INET;
    to.sin_addr.s_addr = htonl(address.toIPv4Address());
    return control(SIOCSIFADDR, name, data);
}

// Call it before the process has a second thread. False if the system does not allow it.
inline bool enter()
{
    if (::unshare(CLONE_NEWNET) != 0 && ::unshare(CLONE_NEWUSER | CLONE_NEWNET) != 0)
        return false;
    ifreq up{};
    up.ifr_flags = IFF_UP | IFF_RUNNING;
    return control(SIOCSIFFLAGS, "lo", up);
}

} // namespace PrivateNetwork
