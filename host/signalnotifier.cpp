// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "host/signalnotifier.h"

#include "plugin/cwrn.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <csignal>
#include <string_view>

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

namespace host {
namespace {

// For the signal handler, which runs in any thread. Set before it is installed, restored after it
// is uninstalled: in another thread it may still be at work then.
std::atomic<int> writeEnd = -1;
std::atomic<const std::atomic<qint64> *> unsafe = nullptr; // null: the end says nothing
static_assert(decltype(writeEnd)::is_always_lock_free && decltype(unsafe)::is_always_lock_free
              && std::atomic<qint64>::is_always_lock_free); // as a handler needs them

constexpr int StopSignals[] = {SIGINT, SIGTERM};
constexpr int OtherSignals[] = {SIGHUP, SIGUSR1, SIGUSR2};

void catchSignal(int number, int flags, void (*handler)(int))
{
    struct sigaction action = {};
    action.sa_handler = handler;
    action.sa_flags = SA_RESTART | flags;
    ::sigaction(number, &action, nullptr);
}

// Not through the log: a handler may interrupt whoever is writing there. Does not wait for the
// reader of standard error.
void tellLoss()
{
    const std::atomic<qint64> *count = unsafe;
    if (!count)
        return;
    constexpr std::string_view before = "warning: Ended by a second signal: ";
    constexpr std::string_view behind = " messages are not safe, and what the plugin has is lost\n";
    std::array<char, 128> line = {};
    char *end = std::copy(before.begin(), before.end(), line.begin());
    end = std::to_chars(end, line.end(), count->load()).ptr;
    end = std::copy(behind.begin(), behind.end(), end);
    pollfd request = {STDERR_FILENO, POLLOUT, 0};
    if (::poll(&request, 1, 0) != 1 || (request.revents & POLLOUT) == 0)
        return;
    const auto size = static_cast<std::size_t>(end - line.begin());
    [[maybe_unused]] const ssize_t written = ::write(STDERR_FILENO, line.data(), size);
}

extern "C" void endAtOnce(int number)
{
    tellLoss();
    ::raise(number); // now with its default action, when this handler returns
}

extern "C" void forwardSignal(int number)
{
    const int savedErrno = errno;
    const auto byte = static_cast<unsigned char>(number);
    // The pipe is full only if thousands of signals wait already. Then this one may be lost.
    [[maybe_unused]] const ssize_t written = ::write(writeEnd, &byte, 1);
    if (unsafe && (number == SIGINT || number == SIGTERM))
        catchSignal(number, static_cast<int>(SA_RESETHAND), endAtOnce);
    errno = savedErrno;
}

} // namespace

SignalNotifier::SignalNotifier(const std::atomic<qint64> *unsafeMessages)
{
    int ends[2] = {-1, -1};
    if (::pipe2(ends, O_CLOEXEC | O_NONBLOCK) != 0) {
        CWRN(QtCriticalMsg, QStringLiteral("No pipe: signals are not handled"));
        return;
    }
    readEnd = ends[0];
    writeEnd = ends[1];
    notifier = std::make_unique<QSocketNotifier>(readEnd, QSocketNotifier::Read);
    connect(notifier.get(), &QSocketNotifier::activated, this, &SignalNotifier::readSignal);

    unsafe = unsafeMessages;
    for (const int number : StopSignals)
        catchSignal(number, static_cast<int>(SA_RESETHAND), forwardSignal);
    for (const int number : OtherSignals)
        catchSignal(number, 0, forwardSignal);
}

SignalNotifier::~SignalNotifier()
{
    if (readEnd < 0)
        return;

    for (const int number : StopSignals)
        std::signal(number, SIG_DFL);
    for (const int number : OtherSignals)
        std::signal(number, SIG_DFL);
    notifier.reset();
    ::close(readEnd);
    ::close(writeEnd);
    writeEnd = -1;
    unsafe = nullptr;
}

void SignalNotifier::setEnabled(bool enable)
{
    if (notifier)
        notifier->setEnabled(enable);
}

void SignalNotifier::readSignal()
{
    unsigned char number = 0;
    if (::read(readEnd, &number, 1) != 1)
        return;

    if (number == SIGHUP)
        Q_EMIT reloadRequested();
    else if (number == SIGUSR1)
        Q_EMIT statusRequested();
    else if (number == SIGUSR2)
        Q_EMIT reopenRequested();
    else
        Q_EMIT stopRequested();
}

} // namespace host
