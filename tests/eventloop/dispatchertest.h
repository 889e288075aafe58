// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include "eventloop/epolleventdispatcher.h"
#include "tests/kit/hangguard.h"

#include <QtCore/QAbstractEventDispatcher>
#include <QtCore/QDir>
#include <QtCore/QEventLoop>
#include <QtCore/QRegularExpression>
#include <QtCore/QSocketNotifier>
#include <QtCore/QThread>
#include <QtCore/QTimer>
#include <QtCore/QTimerEvent>
#include <QtTest/QTest>

#include <chrono>
#include <functional>
#include <memory>
#include <utility>

#include <sys/socket.h>
#include <unistd.h>

// Helpers for the tests of event dispatchers.
namespace dispatchertest {

// The dispatcher of the calling thread.
inline QAbstractEventDispatcher *dispatcher()
{
    return QAbstractEventDispatcher::instance();
}

// One turn of the event loop.
inline bool turn(QEventLoop::ProcessEventsFlags flags = QEventLoop::AllEvents)
{
    return dispatcher()->processEvents(flags);
}

// Runs turns that do not wait, until nothing is left to do.
inline void settle()
{
    while (turn()) {}
}

// Runs turns that wait for events, as an event loop does. So the test fails if a wake-up is
// missing. False after the hang guard.
inline bool turnUntil(const std::function<bool()> &done)
{
    QTimer guard;
    guard.setSingleShot(true);
    guard.start(HangGuardMs);
    // A turn delivers the posted events and then waits. End the turn if the condition holds by
    // then.
    QObject::connect(dispatcher(), &QAbstractEventDispatcher::aboutToBlock, &guard, [&] {
        if (done())
            dispatcher()->interrupt();
    });
    while (!done() && guard.isActive())
        turn(QEventLoop::WaitForMoreEvents | QEventLoop::EventLoopExec);
    return done();
}

// Call it before the thread starts.
inline void setEpollDispatcher(QThread *thread, std::chrono::milliseconds wakeUpInterval = {})
{
    std::unique_ptr<QAbstractEventDispatcher> epoll = EpollEventDispatcher::create(wakeUpInterval);
    QVERIFY(epoll);
    thread->setEventDispatcher(epoll.release());
}

class BodyThread : public QThread
{
public:
    explicit BodyThread(std::function<void()> function) : body(std::move(function)) {}

protected:
    void run() override { body(); }

private:
    std::function<void()> body;
};

// A file descriptor. The destructor closes it.
class Fd
{
public:
    explicit Fd(int value = -1) : fd(value) {}
    Fd(Fd &&other) noexcept : fd(std::exchange(other.fd, -1)) {}
    Fd &operator=(Fd &&other) noexcept
    {
        std::swap(fd, other.fd);
        return *this;
    }
    ~Fd() { reset(); }

    operator int() const { return fd; }
    void reset()
    {
        if (fd >= 0)
            close(fd);
        fd = -1;
    }

private:
    int fd;
};

// Two connected sockets. Tests make the notifiers for socket a.
struct SocketPair
{
    SocketPair()
    {
        int fds[2] = {-1, -1};
        if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, fds) != 0)
            qFatal("socketpair failed");
        a = Fd(fds[0]);
        b = Fd(fds[1]);
    }
    void send() const { QCOMPARE(write(b, "x", 1), ssize_t(1)); }
    // Fails if there is nothing to receive.
    void receive() const
    {
        char c = 0;
        QCOMPARE(read(a, &c, 1), ssize_t(1));
    }

    Fd a;
    Fd b;
};

class TimerObject : public QObject
{
public:
    std::function<void(int id)> beat = [](int) {};

protected:
    void timerEvent(QTimerEvent *event) override { beat(event->timerId()); }
};

template<class Slot>
void onActivated(QSocketNotifier *notifier, Slot slot)
{
    QObject::connect(notifier, &QSocketNotifier::activated, notifier, slot);
}

inline QRegularExpression expression(const char *pattern)
{
    return QRegularExpression(QString::fromLatin1(pattern));
}

inline int openDescriptors()
{
    return int(QDir(QStringLiteral("/proc/self/fd")).entryList(QDir::Files | QDir::System).size());
}

} // namespace dispatchertest
