// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "host/signalnotifier.h"

#include "plugin/cwrn.h"

#include <cerrno>
#include <csignal>

#include <fcntl.h>
#include <unistd.h>

namespace host {
namespace {

// For the signal handler. Set before it is installed, restored after it is uninstalled.
volatile std::sig_atomic_t writeEnd = -1;

extern "C" void forwardSignal(int number)
{
    const int savedErrno = errno;
    const auto byte = static_cast<unsigned char>(number);
    // The pipe is full only if thousands of signals wait already. Then this one may be lost.
    [[maybe_unused]] const ssize_t written = ::write(writeEnd, &byte, 1);
    errno = savedErrno;
}

void catchSignal(int number, int flags)
{
    struct sigaction action = {};
    action.sa_handler = forwardSignal;
    action.sa_flags = SA_RESTART | flags;
    ::sigaction(number, &action, nullptr);
}

constexpr int StopSignals[] = {SIGINT, SIGTERM};
constexpr int OtherSignals[] = {SIGHUP, SIGUSR1, SIGUSR2};

} // namespace

SignalNotifier::SignalNotifier()
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

    for (const int number : StopSignals)
        catchSignal(number, static_cast<int>(SA_RESETHAND));
    for (const int number : OtherSignals)
        catchSignal(number, 0);
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
