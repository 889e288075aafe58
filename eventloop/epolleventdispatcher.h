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

    Qt's own dispatchers for Unix hand the whole set of sockets to the kernel in every turn, and
    keep the timers in a sorted list. This one leaves the set in the kernel, with epoll(7), and
    keeps the timers in a tree. So the cost of an event does not depend on the number of idle
    sockets, and restarting a timer costs O(log n).

    In all else it behaves as Qt's QEventDispatcherUNIX, also in nested event loops, with one
    exception. epoll does not report a descriptor that was closed while its notifier was enabled:
    that notifier stays silent, where Qt's dispatcher disables it with a warning. So disable the
    notifiers before you close a descriptor, as all classes of Qt do.

    Wake-up moderation, off by default. To wake a sleeping thread costs the waker about as much as
    the rest of a posted event. With an interval, a thread that another thread has woken is not
    woken again before the interval is over, as a network card spaces its interrupts. Events that
    other threads post meanwhile are handled together: at the end of the interval, or earlier if a
    socket, a timer or interrupt() ends the wait. So a posted event is late by an interval at most,
    rounded up to whole milliseconds (the unit of epoll_wait()), and only if there was a wake-up in
    the interval before it. After an interval without events, the thread waits as usual, and the
    next event wakes it at once. Sockets, timers and interrupt() are never late. Event loops are
    moderated, nested ones included. Turns without QEventLoop::EventLoopExec, and turns that exclude
    socket notifiers, are not.

    Thread: made in any thread. Then given to QThread::setEventDispatcher() before that thread
            starts, or to QCoreApplication::setEventDispatcher() before the application object is
            made. Used in that thread only; wakeUp() and interrupt() from any thread.
    Owner:  the thread, or the application. A thread deletes its dispatcher at its end, and needs a
            new one to start again. Whoever gives up a thread before its start deletes the
            dispatcher.
    Locks:  none; three atomic flags.
*/
class EpollEventDispatcher final : public EventDispatcherBase
{
    Q_OBJECT

public:
    // Null, with errno set, if its descriptors cannot be opened; later it needs no more of them.
    // wakeUpInterval: of the moderation, 0 (off) to one day.
    static std::unique_ptr<EpollEventDispatcher>
    create(std::chrono::milliseconds wakeUpInterval = std::chrono::milliseconds(0));
    ~EpollEventDispatcher() override;

    // When the calling thread's dispatcher collected the events that it is now handling.
    // TimePoint::max() if that was one event only, which began the turn, or if the dispatcher is of
    // another class.
    static TimerQueue::TimePoint turnBegan();

    // Whether the calling thread's dispatcher is in a turn. False if it is of another class.
    static bool isInTurn();
    // As object->deleteLater(), but never deletes within a turn: a function of the object may still
    // be on the stack, below a slot or a message handler that delivers events. The object is
    // deleted at the end of the outermost turn. object: lives in the calling thread; others may
    // delete it before. With a dispatcher of another class this is object->deleteLater().
    static void deleteLater(QObject *object);

    //! What other threads may know of a dispatcher's thread.
    struct alignas(64) Pulse // a cache line of its own: other threads write beside it
    {
        std::atomic<quint64> turns = 0; // begun so far, nested ones included
        std::atomic<bool> waits = false; // for events
    };
    // Outlives the dispatcher. From any thread.
    std::shared_ptr<const Pulse> pulse() const { return ownPulse; }

    //! Counts as a turn while it lives. For work that a thread does outside of its event loop.
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
        bool alwaysReady = false; // not watched, counts as ready: e.g. a regular file
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
    std::atomic<bool> asleep{false}; // wakeUp() must end the wait; see beginWait()
    std::atomic<bool> interrupted{false};
    const std::shared_ptr<Pulse> ownPulse = std::make_shared<Pulse>();

    // The rest belongs to the dispatcher's thread.
    quint64 turns = 0; // nested ones included
    const TimerQueue::Duration wakeUpInterval; // zero: no moderation
    // No wake-up before this time: one interval after the latest wake-up by another thread. The
    // default is not zero, which is the start of the machine.
    TimerQueue::TimePoint deferUntil = TimerQueue::TimePoint::min();
    TimerQueue::TimePoint collected = TimerQueue::TimePoint::max(); // see turnBegan()
    int depth = 0; // of turns within turns
    QList<QPointer<QObject>> doomed; // see deleteLater()
    std::unordered_map<int, Descriptor> descriptors;
    std::set<int> unwatched; // descriptors that the kernel has refused: always ready, or invalid
    bool leftKernelAlone = false; // in the latest turn
    std::vector<int> ready; // descriptors to activate; nested turns share it
    std::size_t nextReady = 0; // index into ready
    TimerQueue timers;
};
