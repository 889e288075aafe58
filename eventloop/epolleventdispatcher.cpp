// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "eventloop/epolleventdispatcher.h"

#include <QtCore/QCoreApplication>
#include <QtCore/QThread>

#include <algorithm>
#include <cerrno>
#include <climits>

#include <poll.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <unistd.h>

namespace {
// Ready descriptors served in one turn. The kernel continues behind them in the next turn. So every
// descriptor is served, with posted events and timers in between.
constexpr int EventsPerTurn = 512;

struct TypeInfo
{
    QSocketNotifier::Type type;
    quint32 interest;
    const char *name;
};
// In the order of the enumeration.
constexpr TypeInfo Types[] = {
        {QSocketNotifier::Read, EPOLLIN, "Read"},
        {QSocketNotifier::Write, EPOLLOUT, "Write"},
        {QSocketNotifier::Exception, EPOLLPRI, "Exception"},
};

void warnOfSecondNotifier(const QSocketNotifier *notifier)
{
    qWarning("QSocketNotifier: Multiple socket notifiers for same socket %d and type %s",
             static_cast<int>(notifier->socket()), Types[notifier->type()].name);
}

int toMs(TimerQueue::Duration duration)
{
    const auto ms = std::chrono::ceil<std::chrono::milliseconds>(duration).count();
    return static_cast<int>(std::clamp<qint64>(ms, 0, INT_MAX));
}
} // namespace

std::unique_ptr<EpollEventDispatcher>
EpollEventDispatcher::create(std::chrono::milliseconds wakeUpInterval)
{
    std::unique_ptr<EpollEventDispatcher> dispatcher(new EpollEventDispatcher(wakeUpInterval));
    if (dispatcher->open())
        return dispatcher;

    const int error = errno;
    dispatcher.reset();
    errno = error;
    return nullptr;
}

bool EpollEventDispatcher::open()
{
    epollFd = epoll_create1(EPOLL_CLOEXEC);
    if (epollFd < 0)
        return false;
    wakeUpFd = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    if (wakeUpFd < 0)
        return false;

    epoll_event event{};
    event.events = EPOLLIN | EPOLLET; // reports each write; nobody needs to read it
    event.data.fd = wakeUpFd;
    return epoll_ctl(epollFd, EPOLL_CTL_ADD, wakeUpFd, &event) == 0;
}

EpollEventDispatcher::~EpollEventDispatcher()
{
    if (wakeUpFd >= 0)
        close(wakeUpFd);
    if (epollFd >= 0)
        close(epollFd);
}

EpollEventDispatcher *EpollEventDispatcher::ofThisThread()
{
    return qobject_cast<EpollEventDispatcher *>(instance());
}

bool EpollEventDispatcher::isInTurn()
{
    const auto *dispatcher = ofThisThread();
    return dispatcher && dispatcher->depth > 0;
}

void EpollEventDispatcher::deleteLater(QObject *object)
{
    if (isInTurn())
        ofThisThread()->doomed.append(object);
    else
        object->deleteLater();
}

EpollEventDispatcher::Turn::Turn() : dispatcher(ofThisThread())
{
    if (dispatcher)
        dispatcher->beginTurn();
}

EpollEventDispatcher::Turn::~Turn()
{
    if (dispatcher)
        dispatcher->endTurn();
}

// Deletions count as a nested turn: a destructor may run an event loop, and ask for more deletions.
void EpollEventDispatcher::endTurn()
{
    if (depth == 1 && !doomed.isEmpty()) {
        ++depth;
        while (!doomed.isEmpty())
            delete doomed.takeFirst();
        --depth;
    }
    --depth;
}

bool EpollEventDispatcher::processEvents(QEventLoop::ProcessEventsFlags flags)
{
    beginTurn();
    const bool result = playTurn(flags);
    endTurn();
    return result;
}

bool EpollEventDispatcher::playTurn(QEventLoop::ProcessEventsFlags flags)
{
    const quint64 turn = ++turns;
    ownPulse->turns.store(turn, std::memory_order_relaxed);
    interrupted = false;
    Q_EMIT awake();
    QCoreApplication::sendPostedEvents();

    const bool withNotifiers = !flags.testFlag(QEventLoop::ExcludeSocketNotifiers);
    const bool withTimers = !flags.testFlag(QEventLoop::X11ExcludeTimers);
    if (withNotifiers)
        collectUnwatched();

    // Each posted event calls wakeUp(). So wakeUpPending also tells of events posted by those just
    // sent. A nested turn may have cleared wakeUpPending, or an interruption of this loop; then do
    // not block. What this turn deletes at its end must not wait, either.
    const bool canWait = flags.testFlag(QEventLoop::WaitForMoreEvents) && !wakeUpPending
            && turn == turns && (depth > 1 || doomed.isEmpty())
            && (!withNotifiers || nextReady == ready.size());
    if (canWait && !interrupted)
        Q_EMIT aboutToBlock();
    if (interrupted)
        return false;

    int events = 0;
    if (mayLeaveKernelAlone(flags))
        events += wakeUpPending.exchange(false) ? 1 : 0;
    else
        events += collectReady(flags, canWait && turn == turns) ? 1 : 0;
    if (withNotifiers)
        events += activateNotifiers();
    if (withTimers)
        events += activateTimers();
    return events > 0;
}

TimerQueue::TimePoint EpollEventDispatcher::turnBegan()
{
    const auto *dispatcher = ofThisThread();
    return dispatcher ? dispatcher->collected : TimerQueue::TimePoint::max();
}

// Whether this turn may skip epoll_wait(). It may if it is there for posted events: usually this
// thread posted them to itself in the turn before, and the kernel seldom has anything new. Never
// twice in a row: a thread that always posts to itself would starve its sockets.
bool EpollEventDispatcher::mayLeaveKernelAlone(QEventLoop::ProcessEventsFlags flags)
{
    leftKernelAlone = !leftKernelAlone && wakeUpPending && nextReady == ready.size()
            && flags.testFlag(QEventLoop::EventLoopExec);
    return leftKernelAlone;
}

void EpollEventDispatcher::registerSocketNotifier(QSocketNotifier *notifier)
{
    Q_ASSERT(notifier->thread() == thread() && thread() == QThread::currentThread());
    const int fd = static_cast<int>(notifier->socket());
    Descriptor &descriptor = descriptors[fd];
    QSocketNotifier *&place = descriptor.notifiers[notifier->type()];
    if (place && place != notifier)
        warnOfSecondNotifier(notifier);

    place = notifier;
    descriptor.pending.reset(notifier->type());
    watch(fd, descriptor);
}

void EpollEventDispatcher::unregisterSocketNotifier(QSocketNotifier *notifier)
{
    Q_ASSERT(notifier->thread() == thread() && thread() == QThread::currentThread());
    const int fd = static_cast<int>(notifier->socket());
    const auto position = descriptors.find(fd);
    if (position == descriptors.end())
        return;

    Descriptor &descriptor = position->second;
    QSocketNotifier *&place = descriptor.notifiers[notifier->type()];
    if (place != notifier) {
        if (place)
            warnOfSecondNotifier(notifier);
        return;
    }

    place = nullptr;
    descriptor.pending.reset(notifier->type());
    watch(fd, descriptor);
    if (descriptor.notifiers == decltype(descriptor.notifiers){})
        descriptors.erase(position);
}

// Tells the kernel what the notifiers want, even if that seems unchanged: the kernel forgets a
// closed descriptor, and its number may belong to another file now.
void EpollEventDispatcher::watch(int fd, Descriptor &descriptor)
{
    epoll_event event{};
    event.data.fd = fd;
    for (const TypeInfo &info : Types) {
        if (descriptor.notifiers[info.type])
            event.events |= info.interest;
    }

    unwatched.erase(fd);
    if (event.events == 0) {
        epoll_ctl(epollFd, EPOLL_CTL_DEL, fd, nullptr); // fails harmlessly if fd was closed
        return;
    }

    int operation = descriptor.watched ? EPOLL_CTL_MOD : EPOLL_CTL_ADD;
    descriptor.watched = epoll_ctl(epollFd, operation, fd, &event) == 0;
    if (!descriptor.watched && (errno == ENOENT || errno == EEXIST)) {
        operation = errno == ENOENT ? EPOLL_CTL_ADD : EPOLL_CTL_MOD;
        descriptor.watched = epoll_ctl(epollFd, operation, fd, &event) == 0;
    }
    if (!descriptor.watched) {
        // EPERM: a file that epoll cannot watch. ENOMEM, ENOSPC: no memory to watch another one.
        // All three count as ready, and are tried again in every turn.
        descriptor.alwaysReady = errno == EPERM || errno == ENOMEM || errno == ENOSPC;
        unwatched.insert(fd);
    }
}

// Handles the descriptors that the kernel has refused; usually there are none.
void EpollEventDispatcher::collectUnwatched()
{
    for (auto next = unwatched.begin(); next != unwatched.end();) {
        const int fd = *next;
        Descriptor &descriptor = descriptors[fd];
        if (descriptor.alwaysReady)
            watch(fd, descriptor);
        if (!descriptor.watched && descriptor.alwaysReady)
            collect(fd, EPOLLIN | EPOLLOUT); // as poll(2) reports files
        else if (!descriptor.watched)
            disableNotifiers(fd);
        next = unwatched.upper_bound(fd); // looked up again: the calls above change the set
    }
}

void EpollEventDispatcher::disableNotifiers(int fd)
{
    for (QSocketNotifier *notifier : std::array(descriptors[fd].notifiers)) {
        if (!notifier)
            continue;
        qWarning("QSocketNotifier: Invalid socket %d with type %s, disabling...", fd,
                 Types[notifier->type()].name);
        notifier->setEnabled(false);
    }
}

// Waits for events, and notes what is ready. True if wakeUp() was called.
bool EpollEventDispatcher::collectReady(QEventLoop::ProcessEventsFlags flags, bool canWait)
{
    const bool withNotifiers = !flags.testFlag(QEventLoop::ExcludeSocketNotifiers);
    std::array<epoll_event, EventsPerTurn> events;
    ownPulse->waits.store(canWait, std::memory_order_relaxed);
    int timeoutMs = 0;
    int count = 0;
    do { // again after each signal: its handler may have called wakeUp()
        timeoutMs = canWait ? beginWait(flags) : 0;
        if (withNotifiers) {
            count = epoll_wait(epollFd, events.data(), EventsPerTurn, timeoutMs);
        } else {
            pollfd wakeUpOnly{wakeUpFd, POLLIN, 0};
            events[0].data.fd = wakeUpFd;
            count = poll(&wakeUpOnly, 1, timeoutMs);
        }
    } while (count < 0 && errno == EINTR);

    ownPulse->waits.store(false, std::memory_order_relaxed);
    collected = count > 1 ? TimerQueue::Clock::now() : TimerQueue::TimePoint::max();
    for (int i = 0; i < count; ++i) {
        const epoll_event &event = events[static_cast<std::size_t>(i)];
        if (event.data.fd != wakeUpFd)
            collect(event.data.fd, event.events);
        else if (!withNotifiers)
            clearWakeUpFd();
    }
    return takeWakeUp(timeoutMs != 0);
}

// Decides whether wake-ups end the wait that begins now. Returns its time-out in ms; -1: none.
//
// No wake-up is lost. A waker sets wakeUpPending, then reads asleep. This thread sets asleep, then
// reads wakeUpPending. All four are sequentially consistent: they have one order, in which one of
// the two comes second and reads what the other has set. So the waker writes, or this thread does
// not wait. A moderated wait does not set asleep, but it has a time-out, and wakeUpPending is read
// again afterwards. A thread that is awake reads wakeUpPending before its next wait.
int EpollEventDispatcher::beginWait(QEventLoop::ProcessEventsFlags flags)
{
    constexpr TimerQueue::TimePoint Never = TimerQueue::TimePoint::max();
    const bool withTimers = !flags.testFlag(QEventLoop::X11ExcludeTimers);
    const bool moderated = isModerated(flags);
    const auto end = std::min(withTimers ? timers.nextDeadline().value_or(Never) : Never,
                              moderated ? deferUntil : Never);
    asleep = !moderated;
    if (wakeUpPending)
        return 0;
    return end == Never ? -1 : toMs(end - TimerQueue::Clock::now());
}

bool EpollEventDispatcher::isModerated(QEventLoop::ProcessEventsFlags flags) const
{
    return wakeUpInterval > TimerQueue::Duration::zero()
            && flags.testFlag(QEventLoop::EventLoopExec)
            && !flags.testFlag(QEventLoop::ExcludeSocketNotifiers)
            && TimerQueue::Clock::now() < deferUntil;
}

// True if wakeUp() was called. The next turn begins with the reason: a posted event, or the end of
// a loop.
bool EpollEventDispatcher::takeWakeUp(bool waited)
{
    asleep = false;
    const bool taken = wakeUpPending.exchange(false);
    // It was not pending before the wait, and this thread has slept since: another thread has set
    // it.
    if (taken && waited && wakeUpInterval > TimerQueue::Duration::zero())
        deferUntil = TimerQueue::Clock::now() + wakeUpInterval;
    return taken;
}

void EpollEventDispatcher::collect(int fd, quint32 events)
{
    const auto position = descriptors.find(fd);
    if (position == descriptors.end())
        return;

    Descriptor &descriptor = position->second;
    const bool queued = descriptor.pending.any();
    for (const TypeInfo &info : Types) {
        // As with poll(2), each notifier is told of errors and hang-ups.
        if (descriptor.notifiers[info.type] && (events & (info.interest | EPOLLERR | EPOLLHUP)))
            descriptor.pending.set(info.type);
    }
    if (!queued && descriptor.pending.any())
        ready.push_back(fd);
}

// For poll(2) only: epoll reports each write once (EPOLLET).
void EpollEventDispatcher::clearWakeUpFd()
{
    eventfd_t count = 0;
    eventfd_read(wakeUpFd, &count);
}

int EpollEventDispatcher::activateNotifiers()
{
    int activated = 0;
    while (nextReady < ready.size()) {
        QSocketNotifier *notifier = takePending(ready[nextReady]);
        if (!notifier) {
            ++nextReady;
            continue;
        }
        // The slot may run a nested turn, which continues from here.
        QEvent event(QEvent::SockAct);
        QCoreApplication::sendEvent(notifier, &event);
        ++activated;
    }
    ready.clear();
    nextReady = 0;
    return activated;
}

// Null if the descriptor has no more pending notifiers.
QSocketNotifier *EpollEventDispatcher::takePending(int fd)
{
    const auto position = descriptors.find(fd);
    if (position == descriptors.end())
        return nullptr;

    Descriptor &descriptor = position->second;
    for (const TypeInfo &info : Types) {
        if (descriptor.pending.test(info.type)) {
            descriptor.pending.reset(info.type);
            return descriptor.notifiers[info.type];
        }
    }
    return nullptr;
}

bool EpollEventDispatcher::unregisterTimers(QObject *object)
{
    Q_ASSERT(object->thread() == thread() && thread() == QThread::currentThread());
    return timers.removeAll(object);
}

#if QT_VERSION >= QT_VERSION_CHECK(6, 8, 0)
void EpollEventDispatcher::registerTimer(Qt::TimerId timerId, Duration interval,
                                         Qt::TimerType timerType, QObject *object)
{
    Q_ASSERT(object->thread() == thread() && thread() == QThread::currentThread());
    timers.add({qToUnderlying(timerId), interval, timerType, object}, TimerQueue::Clock::now());
}

bool EpollEventDispatcher::unregisterTimer(Qt::TimerId timerId)
{
    return timers.remove(qToUnderlying(timerId));
}

QList<EpollEventDispatcher::TimerInfoV2>
EpollEventDispatcher::timersForObject(QObject *object) const
{
    QList<TimerInfoV2> infos;
    for (const TimerQueue::Timer &timer : timers.timersOf(object))
        infos.append({timer.interval, Qt::TimerId(timer.id), timer.type});
    return infos;
}

EpollEventDispatcher::Duration EpollEventDispatcher::remainingTime(Qt::TimerId timerId) const
{
    return timers.remaining(qToUnderlying(timerId), TimerQueue::Clock::now())
            .value_or(std::chrono::milliseconds(-1)); // -1 in the older interface's unit, too
}
#else
void EpollEventDispatcher::registerTimer(int timerId, qint64 interval, Qt::TimerType timerType,
                                         QObject *object)
{
    Q_ASSERT(object->thread() == thread() && thread() == QThread::currentThread());
    timers.add({timerId, std::chrono::milliseconds(interval), timerType, object},
               TimerQueue::Clock::now());
}

bool EpollEventDispatcher::unregisterTimer(int timerId)
{
    return timers.remove(timerId);
}

QList<EpollEventDispatcher::TimerInfo> EpollEventDispatcher::registeredTimers(QObject *object) const
{
    QList<TimerInfo> infos;
    for (const TimerQueue::Timer &timer : timers.timersOf(object))
        infos.append(TimerInfo(timer.id, toMs(timer.interval), timer.type));
    return infos;
}

int EpollEventDispatcher::remainingTime(int timerId)
{
    const auto remaining = timers.remaining(timerId, TimerQueue::Clock::now());
    return remaining ? toMs(*remaining) : -1;
}
#endif

int EpollEventDispatcher::activateTimers()
{
    return timers.deliverDue(TimerQueue::Clock::now(), [](int id, QObject *object) {
        QTimerEvent event(id);
        QCoreApplication::sendEvent(object, &event);
    });
}

void EpollEventDispatcher::wakeUp()
{
    if (!wakeUpPending.exchange(true) && asleep) // in this order, see beginWait()
        endWait();
}

// Always ends the wait: a wake-up that is pending may be a deferred one.
void EpollEventDispatcher::interrupt()
{
    interrupted = true;
    wakeUpPending = true;
    endWait();
}

// Nothing to do in the dispatcher's own thread: it is awake, and does not wait while a wake-up is
// pending.
void EpollEventDispatcher::endWait()
{
    if (QThread::currentThread() != thread())
        eventfd_write(wakeUpFd, 1);
}
