// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include <QtCore/QByteArrayList>
#include <QtCore/QProcessEnvironment>
#include <QtCore/QString>

#include <cstddef>
#include <cstring>

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace inputhosttest {

//! The service manager's end of the socket to which the program tells how it is.
class ServiceManager
{
public:
    // name: as in NOTIFY_SOCKET.
    explicit ServiceManager(const QByteArray &name)
    {
        sockaddr_un address = {};
        address.sun_family = AF_UNIX;
        std::memcpy(address.sun_path, name.constData(), std::size_t(name.size()));
        if (name.startsWith('@'))
            address.sun_path[0] = '\0';
        fd = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
        const auto size = socklen_t(offsetof(sockaddr_un, sun_path) + std::size_t(name.size()));
        if (::bind(fd, reinterpret_cast<sockaddr *>(&address), size) != 0)
            qFatal("Cannot bind the manager's socket");
    }
    ~ServiceManager() { ::close(fd); }
    Q_DISABLE_COPY_MOVE(ServiceManager)

    // All messages so far, in order.
    const QByteArrayList &messages()
    {
        char buffer[1024];
        for (ssize_t size = 0; (size = ::recv(fd, buffer, sizeof(buffer), 0)) >= 0;)
            all += QByteArray(buffer, size);
        return all;
    }
    // Where one begins like this, from that index on; -1: nowhere.
    qsizetype find(const char *begin, qsizetype from = 0)
    {
        for (qsizetype n = from; n < messages().size(); ++n) {
            if (all.at(n).startsWith(begin))
                return n;
        }
        return -1;
    }

private:
    int fd = -1;
    QByteArrayList all;
};

// What a program finds in its environment that is to feed the watchdog of that manager.
inline QProcessEnvironment watchedBy(const QByteArray &socket, int microseconds)
{
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert(QStringLiteral("NOTIFY_SOCKET"), QString::fromLocal8Bit(socket));
    environment.insert(QStringLiteral("WATCHDOG_USEC"), QString::number(microseconds));
    return environment;
}

} // namespace inputhosttest
