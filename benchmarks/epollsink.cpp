// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

// epollsink PORT
//
// The least that receiving can cost: one thread, level-triggered epoll, one recv() per event, bytes
// and newlines counted, nothing else. Runs until SIGTERM, then prints the counts.

#include "benchmarks/linecounter.h"
#include "benchmarks/sinkprocess.h"

#include <array>
#include <cerrno>
#include <cstdlib>

#include <netinet/in.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

constexpr int Backlog = 4096;
constexpr int EventsPerWait = 256;
constexpr std::size_t ReceiveBytes = 64 * 1024;

int listenOn(std::uint16_t port)
{
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    const int on = 1;
    setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    const auto *generic = reinterpret_cast<const sockaddr *>(&address);
    if (bind(fd, generic, sizeof address) != 0 || listen(fd, Backlog) != 0)
        return -1;
    return fd;
}

class EpollSink
{
public:
    EpollSink(int listeningSocket, int stopSignal) : listener(listeningSocket), stop(stopSignal)
    {
        watch(listener);
        watch(stop);
    }

    void run()
    {
        std::array<epoll_event, EventsPerWait> events;
        for (;;) {
            const int count = epoll_wait(epoll, events.data(), EventsPerWait, -1);
            for (int i = 0; i < count; ++i) {
                const int fd = events[static_cast<std::size_t>(i)].data.fd;
                if (fd == stop)
                    return counter.print();
                if (fd == listener)
                    accept();
                else
                    receive(fd);
            }
        }
    }

private:
    void watch(int fd)
    {
        epoll_event event = {};
        event.events = EPOLLIN;
        event.data.fd = fd;
        epoll_ctl(epoll, EPOLL_CTL_ADD, fd, &event);
    }

    void accept()
    {
        for (;;) {
            const int fd = accept4(listener, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
            if (fd < 0)
                return;
            ++counter.connections;
            watch(fd);
        }
    }

    void receive(int fd)
    {
        const ssize_t size = recv(fd, buffer.data(), buffer.size(), 0);
        if (size > 0)
            counter.add(buffer.data(), static_cast<std::size_t>(size));
        else if (size == 0 || errno != EAGAIN)
            close(fd);
    }

    const int epoll = epoll_create1(EPOLL_CLOEXEC);
    const int listener;
    const int stop;
    LineCounter counter;
    std::array<char, ReceiveBytes> buffer;
};

} // namespace

int main(int argc, char **argv)
{
    raiseDescriptorLimit();
    const int stop = openStopSignal();
    const int listener = argc == 2 ? listenOn(static_cast<std::uint16_t>(std::atoi(argv[1]))) : -1;
    if (listener < 0) {
        std::perror("epollsink: cannot listen");
        return 1;
    }
    static EpollSink sink(listener, stop); // static: its buffer is large for a stack
    sink.run();
}
