// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "host/servicenotifier.h"

#include <QtCore/QString>

#include <cstring>
#include <ctime>

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace host {
namespace {

using std::chrono::microseconds;
using std::chrono::steady_clock;

// Two messages may be lost before the manager acts.
constexpr int FeedsPerTimeout = 3;

constexpr std::chrono::seconds StatusInterval(5);

// -1: there is none, or it cannot be reached.
int connectedTo(const QByteArray &name)
{
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    const auto size = static_cast<std::size_t>(name.size());
    if (size < 2 || size > sizeof(address.sun_path) || !(name[0] == '/' || name[0] == '@'))
        return -1;
    std::memcpy(address.sun_path, name.constData(), size);
    if (name[0] == '@') // an abstract name, which begins with 0
        address.sun_path[0] = '\0';
    const int fd = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    const auto length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + size);
    if (fd >= 0 && ::connect(fd, reinterpret_cast<const sockaddr *>(&address), length) != 0) {
        ::close(fd);
        return -1;
    }
    return fd;
}

// 0: none, or it is for another process.
microseconds watchdogTime()
{
    const QByteArray process = qgetenv("WATCHDOG_PID");
    if (!process.isEmpty() && process.toLongLong() != ::getpid())
        return microseconds(0);
    return microseconds(qgetenv("WATCHDOG_USEC").toLongLong());
}

// The manager compares it with the time of its own request.
QByteArray monotonicMicroseconds()
{
    timespec now = {};
    ::clock_gettime(CLOCK_MONOTONIC, &now);
    const auto time = std::chrono::seconds(now.tv_sec) + std::chrono::nanoseconds(now.tv_nsec);
    return QByteArray::number(
            static_cast<qint64>(std::chrono::duration_cast<microseconds>(time).count()));
}

} // namespace

ServiceNotifier::ServiceNotifier()
    : fd(connectedTo(qgetenv("NOTIFY_SOCKET"))),
      feedInterval(watchdogTime() / FeedsPerTimeout)
{}

ServiceNotifier::~ServiceNotifier()
{
    if (fd >= 0)
        ::close(fd);
}

void ServiceNotifier::tellReady()
{
    send("READY=1");
}

void ServiceNotifier::tellReloading()
{
    send("RELOADING=1\nMONOTONIC_USEC=" + monotonicMicroseconds());
}

void ServiceNotifier::tellStopping(microseconds atMost)
{
    QByteArray message = "STOPPING=1";
    if (feedInterval.count() > 0)
        message += "\nWATCHDOG_USEC=" + QByteArray::number(static_cast<qint64>(atMost.count()))
                + "\nWATCHDOG=1";
    send(message);
}

void ServiceNotifier::tellStatus(const QByteArray &text)
{
    const auto now = steady_clock::now();
    if (text == lastStatus || (!lastStatus.isEmpty() && now - statusSent < StatusInterval))
        return;
    lastStatus = text;
    statusSent = now;
    send("STATUS=" + text);
}

void ServiceNotifier::feedWatchdog()
{
    const auto now = steady_clock::now();
    if (feedInterval.count() <= 0 || (lastFed && now - *lastFed < feedInterval))
        return;
    lastFed = now;
    send("WATCHDOG=1");
}

void ServiceNotifier::send(const QByteArray &message) const
{
    if (fd >= 0)
        ::send(fd, message.constData(), static_cast<std::size_t>(message.size()), MSG_NOSIGNAL);
}

} // namespace host
