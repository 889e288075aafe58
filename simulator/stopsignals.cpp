// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "simulator/stopsignals.h"

#include <csignal>
#include <sys/signalfd.h>
#include <unistd.h>

StopSignals::StopSignals()
{
    sigset_t signalSet;
    sigemptyset(&signalSet);
    sigaddset(&signalSet, SIGINT);
    sigaddset(&signalSet, SIGTERM);
    fd = signalfd(-1, &signalSet, SFD_NONBLOCK | SFD_CLOEXEC);
    if (fd < 0)
        return; // the signals end the program as they always do
    pthread_sigmask(SIG_BLOCK, &signalSet, nullptr);

    connect(&readable, &QSocketNotifier::activated, this, &StopSignals::onReadable);
    readable.setSocket(fd);
    readable.setEnabled(true);
}

StopSignals::~StopSignals()
{
    readable.setEnabled(false);
    if (fd >= 0)
        ::close(fd);
}

void StopSignals::onReadable()
{
    signalfd_siginfo info;
    if (::read(fd, &info, sizeof info) == static_cast<ssize_t>(sizeof info))
        Q_EMIT stopRequested();
}
