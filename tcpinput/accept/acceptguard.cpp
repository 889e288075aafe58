// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "tcpinput/accept/acceptguard.h"

#include <QtCore/QEvent>
#include <QtCore/QSocketNotifier>
#include <QtNetwork/QTcpServer>

#include <sys/eventfd.h>
#include <unistd.h>

namespace {

constexpr int RetryIntervalMs = 100;
constexpr int FruitlessLimit = 2; // one may be for a connection that the turn before accepted

// A connection that waits to be taken holds a descriptor and, with TLS, about 75 kB. The kernel's
// accept queue adds to that.
constexpr qsizetype PauseAboveWaiting = 4096;
constexpr qsizetype ResumeBelowWaiting = 2048;

} // namespace

AcceptGuard::AcceptGuard(QTcpServer *watched, std::function<qsizetype()> waitingCount)
    : server(watched),
      waiting(std::move(waitingCount))
{
    timer.setInterval(RetryIntervalMs);
    connect(&timer, &QTimer::timeout, this, &AcceptGuard::tick);
    connect(server, &QTcpServer::acceptError, this, &AcceptGuard::acceptFailed);
}

void AcceptGuard::watch()
{
    fruitless = 0;
    const auto notifiers = server->findChildren<QSocketNotifier *>();
    for (QSocketNotifier *notifier : notifiers)
        notifier->installEventFilter(this);
}

void AcceptGuard::accepted()
{
    fruitless = 0;
    if (waiting() >= PauseAboveWaiting)
        pause();
}

void AcceptGuard::hold(bool on)
{
    held = on;
    if (held)
        pause();
}

bool AcceptGuard::eventFilter(QObject *, QEvent *event)
{
    if (event->type() == QEvent::SockAct && ++fruitless > FruitlessLimit)
        check();
    return false;
}

// Qt has paused the server. It may be a false alarm: if the very first accept() of a socket has
// failed, Qt keeps that error and reports it again whenever the queue is empty.
void AcceptGuard::acceptFailed()
{
    if (!server->isListening())
        return;
    if (fruitless > 0 || waiting() >= PauseAboveWaiting)
        check();
    else if (!held)
        server->resumeAccepting();
}

// Something keeps the server from accepting. Pauses it, and tells if descriptors have run out.
void AcceptGuard::check()
{
    fruitless = 0;
    pause(); // after acceptError() Qt has paused it already; the timer resumes it
    if (descriptorAvailable() || outOfDescriptors)
        return;
    outOfDescriptors = true;
    Q_EMIT descriptorsOut();
}

void AcceptGuard::pause()
{
    resumed = false;
    if (server->isListening())
        server->pauseAccepting();
    timer.start();
}

void AcceptGuard::tick()
{
    if (!server->isListening() || resumed) {
        // Closed, or nothing has failed for a whole interval.
        timer.stop();
        resumed = false;
        endEpisode();
        return;
    }
    if (!mayResume())
        return;
    resumed = true;
    server->resumeAccepting();
}

bool AcceptGuard::mayResume() const
{
    return !held && waiting() <= ResumeBelowWaiting && descriptorAvailable();
}

// Called also when the server was closed: the two signals come in pairs.
void AcceptGuard::endEpisode()
{
    if (!std::exchange(outOfDescriptors, false))
        return;
    Q_EMIT descriptorsBack();
}

bool AcceptGuard::descriptorAvailable() const
{
    // Opens a new file, where dup() would share one: the system's file table may be full, too.
    const int fd = ::eventfd(0, EFD_CLOEXEC);
    if (fd >= 0)
        ::close(fd);
    return fd >= 0 || (errno != EMFILE && errno != ENFILE);
}
