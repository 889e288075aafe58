// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "simulator/unixsignals.h"

#include <csignal>
#include <sys/signalfd.h>
#include <unistd.h>

namespace simulator {

UnixSignals::UnixSignals()
{
    sigset_t signalSet;
    sigemptyset(&signalSet);
    sigaddset(&signalSet, SIGINT);
    sigaddset(&signalSet, SIGTERM);
    sigaddset(&signalSet, SIGUSR1);
    fd = signalfd(-1, &signalSet, SFD_NONBLOCK | SFD_CLOEXEC);
    if (fd < 0)
        return; // the signals end the program, as they do by default
    pthread_sigmask(SIG_BLOCK, &signalSet, nullptr);

    connect(&readable, &QSocketNotifier::activated, this, &UnixSignals::onReadable);
    readable.setSocket(fd);
    readable.setEnabled(true);
}

UnixSignals::~UnixSignals()
{
    readable.setEnabled(false);
    if (fd >= 0)
        ::close(fd);
}

void UnixSignals::onReadable()
{
    signalfd_siginfo info;
    if (::read(fd, &info, sizeof info) != static_cast<ssize_t>(sizeof info))
        return;
    if (info.ssi_signo == SIGUSR1)
        Q_EMIT progressRequested();
    else
        Q_EMIT stopRequested();
}

} // namespace simulator
