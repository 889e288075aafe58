// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include "eventloop/timerqueue.h"

#include <QtCore/QAbstractEventDispatcher>
#include <QtCore/QList>
#include <QtCore/QPointer>
#include <QtCore/QSocketNotifier>

#include <array>
#include <atomic>
#include <bitset>
#include <chrono>
#include <memory>
#include <set>
#include <unordered_map>
#include <vector>

#if QT_VERSION >= QT_VERSION_CHECK(6, 8, 0)
using EventDispatcherBase = QAbstractEventDispatcherV2;
#else
using EventDispatcherBase = QAbstractEventDispatcher;
#endif

/*!
    An event loop for threads with many sockets and timers.

    Qt's own dispatchers for Unix hand the whole set of sockets to the kernel in every turn and
    keep the timers in a sorted list. Here the kernel keeps the set, as in epoll(7), and the timers
    are in a tree: an event costs the same however many sockets are idle, and restarting a timer
    costs O(log n). In all else this follows Qt's QEventDispatcherUNIX, also where a slot runs a
    nested event loop. One thing epoll cannot do: notice that a descriptor has been closed while
    its notifier was enabled. Such a notifier stays silent, where Qt's disables it with a warning;
    so whoever closes a descriptor has to disable its notifiers first, as all of Qt's classes do.

    Wake-up moderation, off by default: to wake a thread that sleeps costs the waker about as much
    as the rest of a posted event. With an interval, a thread that another one has woken is not
    woken again before the interval is over, as a network card spaces its interrupts: what other
    threads post meanwhile is handled together, at the end of the interval or as soon as a socket,
    a timer or interrupt() ends the wait. So a posted event is late by an interval at most, rounded
    up to whole milliseconds, which is what epoll_wait() counts in, and only where there was a
    wake-up in the interval before it. When nothing has come in an interval the thread waits as
    usual, and is woken at once. Sockets, timers and interrupt() are never late. It is for event
    loops, nested ones included: turns without QEventLoop::EventLoopExec, and those that exclude
    socket notifiers, are not moderated.

    Thread: made in any thread, then handed to QThread::setEventDispatcher() before that thread
            starts (or QCoreApplication::setEventDispatcher() before the application object is
            made) and used in that thread only; wakeUp() and interrupt() from any thread.
    Owner:  the thread, which deletes it at its end: one that is started again needs a new one, and
            whoever gives up a thread before its start has to delete the dispatcher. Or else the
            application.
    Locks:  none; three atomic flags.
*/
class EpollEventDispatcher final : public EventDispatcherBase
{
    Q_OBJECT

public:
    // Null if the descriptors it needs cannot be had (errno says why). Once made, it needs no more.
    // wakeUpInterval: of the moderation, 0 (off) to a day.
    static std::unique_ptr<QAbstractEventDispatcher>
    create(std::chrono::milliseconds wakeUpInterval = std::chrono::milliseconds(0));
    ~EpollEventDispatcher() override;

    // When the calling thread's dispatcher, if it is one of these, found the events that are in
    // hand. The end of time if there is just one, which begins the turn.
    static TimerQueue::TimePoint turnBegan();

    // Whether the calling thread's dispatcher, if it is one of these, is in a turn within a turn: a
    // slot, or the receiver of a log line, runs an event loop.
    static bool isNested();
    // As object->deleteLater(), but never in a turn within a turn: what is further out on the stack
    // may be the object's own work. It is deleted when the outermost turn is over. The object lives
    // in the calling thread and may be deleted by others before. In a thread with another
    // dispatcher this is object->deleteLater().
    static void deleteLater(QObject *object);

    //! Counts as a turn while it lives, for work that the thread does outside of its event loop.
    class Turn
    {
    public:
        Turn();
        ~Turn();
        Q_DISABLE_COPY_MOVE(Turn)

    private:
        const QPointer<EpollEventDispatcher> dispatcher; // null: the thread has another one
    };

    bool processEvents(QEventLoop::ProcessEventsFlags flags) override;

    void registerSocketNotifier(QSocketNotifier *notifier) override;
    void unregisterSocketNotifier(QSocketNotifier *notifier) override;

    bool unregisterTimers(QObject *object) override;
#if QT_VERSION >= QT_VERSION_CHECK(6, 8, 0)
    void registerTimer(Qt::TimerId timerId, Duration interval, Qt::TimerType timerType,
                       QObject *object) override;
    bool unregisterTimer(Qt::TimerId timerId) override;
    QList<TimerInfoV2> timersForObject(QObject *object) const override;
    Duration remainingTime(Qt::TimerId timerId) const override;
#else
    void registerTimer(int timerId, qint64 interval, Qt::TimerType timerType,
                       QObject *object) override;
    bool unregisterTimer(int timerId) override;
    QList<TimerInfo> registeredTimers(QObject *object) const override;
    int remainingTime(int timerId) override;
#endif

    void wakeUp() override;
    void interrupt() override;

private:
    // What the notifiers of one descriptor want and get.
    struct Descriptor
    {
        std::array<QSocketNotifier *, 3> notifiers{}; // by QSocketNotifier::Type
        std::bitset<3> pending; // found ready, not activated yet
        bool watched = false; // by the kernel
        bool alwaysReady = false; // if the kernel does not watch it: a regular file, say
    };

    explicit EpollEventDispatcher(TimerQueue::Duration interval) : wakeUpInterval(interval) {}
    bool open();

    static EpollEventDispatcher *ofThisThread();
    void beginTurn()
    {
        ++depth;
    }
    void endTurn();
    bool playTurn(QEventLoop::ProcessEventsFlags flags);

    bool mayLeaveKernelAlone(QEventLoop::ProcessEventsFlags flags);
    void watch(int fd, Descriptor &descriptor);
    void collectUnwatched();
    void disableNotifiers(int fd);
    bool collectReady(QEventLoop::ProcessEventsFlags flags, bool canWait);
    int beginWait(QEventLoop::ProcessEventsFlags flags);
    bool isModerated(QEventLoop::ProcessEventsFlags flags) const;
    bool takeWakeUp(bool waited);
    void endWait();
    void collect(int fd, quint32 events);
    void clearWakeUpFd();
    int activateNotifiers();
    QSocketNotifier *takePending(int fd);
    int activateTimers();

    int epollFd = -1; // set once
    int wakeUpFd = -1; // set once; an eventfd
    std::atomic<bool> wakeUpPending{false}; // the next turn does not wait
    std::atomic<bool> asleep{false}; // wakeUp() has to end the wait; see beginWait()
    std::atomic<bool> interrupted{false};
    quint64 turns = 0; // nested ones included; the dispatcher's thread only

    // The rest belongs to the dispatcher's thread.
    const TimerQueue::Duration wakeUpInterval; // zero: no moderation
    // An interval after the latest wake-up by another thread. Not the clock's zero, which is when
    // the machine was started.
    TimerQueue::TimePoint deferUntil = TimerQueue::TimePoint::min();
    TimerQueue::TimePoint collected = TimerQueue::TimePoint::max(); // see turnBegan()
    int depth = 0; // of turns within turns
    QList<QPointer<QObject>> doomed; // see deleteLater()
    std::unordered_map<int, Descriptor> descriptors;
    std::set<int> unwatched; // descriptors the kernel has refused: always ready, or invalid
    bool leftKernelAlone = false; // in the latest turn
    std::vector<int> ready; // descriptors to activate; nested turns share it
    std::size_t nextReady = 0; // index into ready
    TimerQueue timers;
};
