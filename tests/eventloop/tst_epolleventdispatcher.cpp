// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "dispatchertest.h"
#include "tests/kit/hangguard.h"

#include <QtCore/QElapsedTimer>
#include <QtCore/QFile>
#include <QtCore/QScopeGuard>
#include <QtCore/QSemaphore>

#include <cerrno>
#include <vector>

#include <fcntl.h>
#include <sys/epoll.h>
#include <sys/resource.h>
#include <sys/syscall.h>

using namespace dispatchertest;

// Replaces the C library's function. On demand it fails, as if the kernel had no memory for one
// more descriptor.
static bool outOfMemory = false;
extern "C" int epoll_ctl(int epoll, int operation, int fd, epoll_event *event) noexcept
{
    if (outOfMemory && operation == EPOLL_CTL_ADD) {
        errno = ENOMEM;
        return -1;
    }
    return static_cast<int>(::syscall(SYS_epoll_ctl, epoll, operation, fd, event));
}

namespace {
void runWithEpoll(const std::function<void()> &body)
{
    BodyThread thread(body);
    setEpollDispatcher(&thread);
    thread.start();
    QVERIFY(thread.wait(2 * HangGuardMs));
}
} // namespace

/*!
    Promises of this dispatcher alone. The main thread of this program uses it, too.
*/
class tst_EpollEventDispatcher : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init() { QTest::failOnWarning(expression(".*")); }

    void servesTheApplication();
    void nullWithoutDescriptors();
    void descriptorsAreClosed();
    void descriptorsAreNotInherited();
    void staysAliveWithoutMemory();
    void unknownTimer();
    void coarseTimersAreNeverEarly();
    void veryCoarseTimerIsOnTheSecond();
    void wakeUpsAreOneEvent();
    void eventsWithoutEndStarveNoSocket();
    void manyThreads();
};

void tst_EpollEventDispatcher::servesTheApplication()
{
    QVERIFY(dispatcher()->inherits("EpollEventDispatcher"));
    QCOMPARE(dispatcher()->thread(), QThread::currentThread());
    bool fired = false;
    QTimer::singleShot(1, this, [&] { fired = true; });
    QVERIFY(turnUntil([&] { return fired; }));
}

void tst_EpollEventDispatcher::nullWithoutDescriptors()
{
    rlimit limit{};
    QCOMPARE(getrlimit(RLIMIT_NOFILE, &limit), 0);
    const auto restore = qScopeGuard([&] { setrlimit(RLIMIT_NOFILE, &limit); });

    const int before = openDescriptors();
    for (int available = 0; available <= 2; ++available) {
        // The fillers take the lowest free numbers. With the last of them as limit, so many
        // descriptors are available.
        std::vector<Fd> fillers;
        for (int i = 0; i < available + 1; ++i)
            fillers.emplace_back(dup(0));
        rlimit tight = limit;
        tight.rlim_cur = rlim_t(int(fillers.back()));
        fillers.clear();
        QCOMPARE(setrlimit(RLIMIT_NOFILE, &tight), 0);

        errno = 0;
        const std::unique_ptr<QAbstractEventDispatcher> made = EpollEventDispatcher::create();
        const int error = errno;
        QCOMPARE(setrlimit(RLIMIT_NOFILE, &limit), 0);
        QCOMPARE(made != nullptr, available == 2);
        if (!made)
            QCOMPARE(error, EMFILE);
        QCOMPARE(openDescriptors(), before + (made ? 2 : 0));
    }
    QCOMPARE(openDescriptors(), before);
}

void tst_EpollEventDispatcher::descriptorsAreClosed()
{
    const int before = openDescriptors();
    {
        std::unique_ptr<QAbstractEventDispatcher> unused = EpollEventDispatcher::create();
        QCOMPARE(openDescriptors(), before + 2);
    }
    QCOMPARE(openDescriptors(), before);

    for (int i = 0; i < 20; ++i) {
        runWithEpoll([] {
            dispatcher()->wakeUp();
            turn();
        });
    }
    QCOMPARE(openDescriptors(), before);

    {
        QThread neverStarted;
        setEpollDispatcher(&neverStarted);
        delete neverStarted.eventDispatcher();
    }
    QCOMPARE(openDescriptors(), before);
}

void tst_EpollEventDispatcher::descriptorsAreNotInherited()
{
    const std::unique_ptr<QAbstractEventDispatcher> made = EpollEventDispatcher::create();
    QVERIFY(made);
    int ours = 0;
    for (const QString &name :
         QDir(QStringLiteral("/proc/self/fd")).entryList(QDir::Files | QDir::System)) {
        const QString target = QFile::symLinkTarget(QStringLiteral("/proc/self/fd/") + name);
        if (!target.contains(QLatin1String("anon_inode:[event")))
            continue;
        ++ours;
        QVERIFY(fcntl(name.toInt(), F_GETFD) & FD_CLOEXEC);
    }
    QVERIFY(ours >= 4); // two of this dispatcher, two of the application's
}

// Lack of memory may be short. If the dispatcher disabled a listener's notifier then, that listener
// would never accept again.
void tst_EpollEventDispatcher::staysAliveWithoutMemory()
{
    int ends[2];
    QCOMPARE(pipe(ends), 0);
    const Fd readEnd(ends[0]);
    const Fd writeEnd(ends[1]);
    outOfMemory = true;
    const auto restore = qScopeGuard([] { outOfMemory = false; });
    QSocketNotifier notifier(readEnd, QSocketNotifier::Read);
    int activations = 0;
    connect(&notifier, &QSocketNotifier::activated, this, [&] { ++activations; });
    QVERIFY(turnUntil([&] { return activations > 1; })); // although nothing is to be read
    QVERIFY(notifier.isEnabled());

    outOfMemory = false;
    turn();
    activations = 0;
    settle();
    QCOMPARE(activations, 0); // the kernel watches the descriptor again
    QCOMPARE(write(writeEnd, "x", 1), 1);
    QVERIFY(turnUntil([&] { return activations > 0; }));
}

void tst_EpollEventDispatcher::unknownTimer()
{
    constexpr int Unknown = 1 << 20;
    QCOMPARE(dispatcher()->remainingTime(Unknown), -1);
    QVERIFY(!dispatcher()->unregisterTimer(Unknown));
    QVERIFY(!dispatcher()->unregisterTimers(this));
}

void tst_EpollEventDispatcher::coarseTimersAreNeverEarly()
{
    runWithEpoll([] {
        for (const int intervalMs : {21, 45, 100, 320}) {
            TimerObject object;
            int beats = 0;
            object.beat = [&](int) { ++beats; };
            QElapsedTimer elapsed;
            elapsed.start();
            object.startTimer(intervalMs);
            QVERIFY(turnUntil([&] { return beats == 1; }));
            QVERIFY(elapsed.nsecsElapsed() >= intervalMs * 1000000LL);
        }
    });
}

void tst_EpollEventDispatcher::veryCoarseTimerIsOnTheSecond()
{
    runWithEpoll([] {
        TimerObject object;
        int beats = 0;
        object.beat = [&](int) { ++beats; };
        QElapsedTimer elapsed;
        elapsed.start();
        const int id = object.startTimer(1000, Qt::VeryCoarseTimer);
        QVERIFY(dispatcher()->remainingTime(id) <= 2000);
        QVERIFY(turnUntil([&] { return beats == 1; }));
        QVERIFY(elapsed.elapsed() >= 1000);
    });
}

void tst_EpollEventDispatcher::wakeUpsAreOneEvent()
{
    runWithEpoll([] {
        for (int i = 0; i < 1000; ++i)
            dispatcher()->wakeUp();
        QVERIFY(turn());
        QVERIFY(!turn());
    });
}

// The thread posts events to itself without end. Each event posts the next one.
void tst_EpollEventDispatcher::eventsWithoutEndStarveNoSocket()
{
    runWithEpoll([] {
        constexpr int Most = 1000; // ends the test if it fails
        const SocketPair pair;
        QSocketNotifier notifier(pair.a, QSocketNotifier::Read);
        bool served = false;
        onActivated(&notifier, [&] {
            pair.receive();
            served = true;
        });
        QObject object;
        int posted = 0;
        const std::function<void()> postAgain = [&] {
            if (!served && ++posted < Most)
                QMetaObject::invokeMethod(&object, postAgain, Qt::QueuedConnection);
        };
        postAgain();
        pair.send();
        QVERIFY(turnUntil([&] { return served; }));
        QVERIFY(posted < Most);
    });
}

// Many events. Each goes around a ring of threads.
void tst_EpollEventDispatcher::manyThreads()
{
    constexpr size_t Threads = 8;
    constexpr int Hops = 2000;
    std::vector<std::unique_ptr<QThread>> threads;
    std::vector<std::unique_ptr<QObject>> objects;
    for (size_t i = 0; i < Threads; ++i) {
        threads.push_back(std::make_unique<QThread>());
        setEpollDispatcher(threads.back().get());
        objects.push_back(std::make_unique<QObject>());
        objects.back()->moveToThread(threads.back().get());
        threads.back()->start();
    }
    QSemaphore completed;
    std::function<void(size_t, int)> hop;
    hop = [&](size_t thread, int left) {
        if (left == 0) {
            completed.release();
            return;
        }
        const size_t next = (thread + 1) % Threads;
        QMetaObject::invokeMethod(
                objects[next].get(), [&, next, left] { hop(next, left - 1); },
                Qt::QueuedConnection);
    };
    for (size_t i = 0; i < Threads; ++i)
        hop(i, Hops);
    QVERIFY(completed.tryAcquire(int(Threads), HangGuardMs));
    // Qt first posts an event, then wakes up the thread. These calls make sure that no thread is
    // still waking up another one when it ends.
    for (const auto &object : objects)
        QMetaObject::invokeMethod(
                object.get(), [] {}, Qt::BlockingQueuedConnection);
    for (const auto &thread : threads)
        thread->quit();
    for (const auto &thread : threads)
        QVERIFY(thread->wait(HangGuardMs));
}

int main(int argc, char *argv[])
{
    QCoreApplication::setEventDispatcher(EpollEventDispatcher::create().release());
    QCoreApplication application(argc, argv);
    tst_EpollEventDispatcher test;
    return QTest::qExec(&test, argc, argv);
}

#include "tst_epolleventdispatcher.moc"
