// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

// epollsink PORT
//
// The least that receiving can cost: one thread, level-triggered epoll, one recv() per event, bytes
// and newlines counted, nothing else. Runs until SIGTERM, then prints the counts.

#include "benchmarks/linecounter.h"
#include "benchmarks/listening.h"
#include "benchmarks/sinkprocess.h"

#include <array>
#include <cerrno>
#include <cstdlib>

#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

constexpr int EventsPerWait = 256;
constexpr std::size_t ReceiveBytes = 64 * 1024;

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
