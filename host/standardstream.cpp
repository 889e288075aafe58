// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "host/standardstream.h"

#include <algorithm>
#include <cerrno>
#include <climits>

#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

namespace host {
namespace {

// A pipe that is writable takes so much without waiting.
constexpr qsizetype MostAtOnce = PIPE_BUF;

bool hasReader(int descriptor)
{
    struct stat status = {};
    return ::fstat(descriptor, &status) == 0
            && (S_ISFIFO(status.st_mode) || S_ISSOCK(status.st_mode) || ::isatty(descriptor) == 1);
}

// -1: it is no terminal, or cannot be opened.
int openTerminal(int descriptor)
{
    if (::isatty(descriptor) != 1)
        return -1;
    const QByteArray name = "/proc/self/fd/" + QByteArray::number(descriptor);
    return ::open(name.constData(), O_WRONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
}

} // namespace

StandardStream::StandardStream(int descriptor)
    : terminal(openTerminal(descriptor)),
      fd(terminal >= 0 ? terminal : descriptor),
      mayWait(hasReader(descriptor))
{}

StandardStream::~StandardStream()
{
    if (terminal >= 0)
        ::close(terminal);
}

qsizetype StandardStream::write(QByteArrayView bytes) const
{
    if (mayWait && !waitUntilWritable(0))
        return 0;
    const qsizetype most = mayWait ? std::min(bytes.size(), MostAtOnce) : bytes.size();
    for (;;) {
        const ssize_t written = ::write(fd, bytes.data(), static_cast<size_t>(most));
        if (written >= 0)
            return written;
        if (errno == EAGAIN) // somebody has made it non-blocking
            return 0;
        if (errno != EINTR)
            return -1;
    }
}

bool StandardStream::waitUntilWritable(int timeoutMs) const
{
    pollfd request = {fd, POLLOUT, 0};
    int ready = 0;
    do {
        ready = ::poll(&request, 1, timeoutMs);
    } while (ready < 0 && errno == EINTR);
    return ready != 0;
}

} // namespace host
