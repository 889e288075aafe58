// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "tcpinput/accept/acceptguard.h"

#include <QtCore/QEvent>
#include <QtCore/QPointer>
#include <QtCore/QSocketNotifier>
#include <QtNetwork/QTcpServer>

#include <cerrno>
#include <utility>

#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

constexpr int RetryIntervalMs = 100;
constexpr int GateIntervalMs = 10;
constexpr int MostPending = 30; // Qt's default
constexpr int MostWaiting = 4096; // in the kernel
constexpr int FruitlessLimit = 2; // one may be for a connection that the turn before accepted

// A connection that waits to be taken holds a descriptor and, with TLS, about 75 kB. The kernel's
// accept queue adds to that.
constexpr qsizetype PauseAboveWaiting = 4096;
constexpr qsizetype ResumeBelowWaiting = 2048;

} // namespace

AcceptGuard::AcceptGuard(QTcpServer *watched, std::function<qsizetype()> waitingCount, Taker taker)
    : server(watched),
      waiting(std::move(waitingCount)),
      take(std::move(taker))
{
    connect(&timer, &QTimer::timeout, this, &AcceptGuard::tick);
    connect(server, &QTcpServer::acceptError, this, &AcceptGuard::acceptFailed);
}

void AcceptGuard::watch()
{
    fruitless = 0;
    const auto notifiers = server->findChildren<QSocketNotifier *>();
    for (QSocketNotifier *notifier : notifiers)
        notifier->installEventFilter(this);
    server->setMaxPendingConnections(MostPending);
    checkGate();
}

void AcceptGuard::accepted()
{
    fruitless = 0;
    if (waiting() >= PauseAboveWaiting)
        pause();
    checkGate();
}

void AcceptGuard::checkGate()
{
    if (gate && !gate())
        pauseAtGate();
}

// At once: Qt goes on to accept what already waits, although it is paused, unless it counts too
// many pending connections. It counts none here.
void AcceptGuard::pauseAtGate()
{
    server->setMaxPendingConnections(0);
    pause();
    timer.start(GateIntervalMs);
}

void AcceptGuard::askGate()
{
    if (timer.isActive() && !resumed)
        tick();
}

// As many as the kernel's queue may hold: others may connect as fast as this accepts.
void AcceptGuard::acceptRest()
{
    const QPointer<AcceptGuard> self(this);
    for (int left = MostWaiting; left > 0; --left) {
        if (!self || !server->isListening() || held || (gate && !gate()))
            return;
        const int descriptor = ::accept4(static_cast<int>(server->socketDescriptor()), nullptr,
                                         nullptr, SOCK_CLOEXEC);
        if (descriptor < 0)
            return;
        take(descriptor);
    }
}

void AcceptGuard::hold(bool on)
{
    held = on;
    if (held)
        pause();
}

bool AcceptGuard::eventFilter(QObject *, QEvent *event)
{
    const QPointer<AcceptGuard> self(this); // a receiver may delete it, and the notifier
    if (event->type() == QEvent::SockAct && ++fruitless > FruitlessLimit)
        check();
    return !self;
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
    doubtful = true;
    if (!descriptorAvailable())
        tellOut();
}

void AcceptGuard::tellOut()
{
    if (!std::exchange(outOfDescriptors, true))
        Q_EMIT descriptorsOut();
}

void AcceptGuard::pause()
{
    resumed = false;
    if (server->isListening())
        server->pauseAccepting();
    timer.start(RetryIntervalMs);
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
    if (doubtful) {
        const QPointer<AcceptGuard> self(this);
        if (!acceptOne() || !self || !mayResume())
            return;
    }
    resumed = true;
    server->setMaxPendingConnections(MostPending);
    server->resumeAccepting();
}

bool AcceptGuard::mayResume() const
{
    return !held && waiting() <= ResumeBelowWaiting && descriptorAvailable() && (!gate || gate());
}

// Finds out whether accept() fails: Qt keeps a socket's first error for ever, and nothing else
// tells why it fails. False if it does; told then.
bool AcceptGuard::acceptOne()
{
    const int listener = static_cast<int>(server->socketDescriptor());
    const int descriptor = ::accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
    const int error = errno;
    doubtful = descriptor < 0 && error != EAGAIN && error != EINTR;
    if (descriptor >= 0)
        take(descriptor); // may delete this
    else if (error == EMFILE || error == ENFILE)
        tellOut();
    else if (doubtful && !std::exchange(failing, true))
        Q_EMIT acceptFails(qt_error_string(error));
    return descriptor >= 0 || error == EAGAIN || error == EINTR;
}

// Called also when the server was closed: each reason to pause is followed by this.
void AcceptGuard::endEpisode()
{
    const bool wasOut = std::exchange(outOfDescriptors, false);
    if (std::exchange(failing, false) || wasOut)
        Q_EMIT acceptsAgain();
}

bool AcceptGuard::descriptorAvailable() const
{
    // Opens a new file, where dup() would share one: the system's file table may be full, too.
    const int fd = ::eventfd(0, EFD_CLOEXEC);
    if (fd >= 0)
        ::close(fd);
    return fd >= 0 || (errno != EMFILE && errno != ENFILE);
}
