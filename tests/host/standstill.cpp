// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

// For LD_PRELOAD: has a worker thread of a host stand still. Whoever receives "stand still" waits
// until somebody has written to the pipe that TCPINPUT_STANDSTILL names, and closed it.

#include <cstdlib>
#include <cstring>

#include <dlfcn.h>
#include <fcntl.h>
#include <sys/types.h>
#include <unistd.h>

namespace {

constexpr char Order[] = "stand still";
using Receive = ssize_t (*)(int, void *, std::size_t, int);

void waitForThePipe()
{
    const char *const name = std::getenv("TCPINPUT_STANDSTILL");
    if (!name)
        return;
    const int pipe = ::open(name, O_RDONLY | O_CLOEXEC); // returns when somebody writes
    char byte = 0;
    while (::read(pipe, &byte, 1) > 0) {}
    ::close(pipe);
}

} // namespace

extern "C" __attribute__((visibility("default"))) ssize_t recv(int socket, void *buffer,
                                                               std::size_t size, int flags)
{
    static const auto real = reinterpret_cast<Receive>(::dlsym(RTLD_NEXT, "recv"));
    const ssize_t received = real(socket, buffer, size, flags);
    constexpr std::size_t OrderSize = sizeof(Order) - 1;
    if (received >= static_cast<ssize_t>(OrderSize) && std::memcmp(buffer, Order, OrderSize) == 0)
        waitForThePipe();
    return received;
}
