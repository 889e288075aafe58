// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "dispatchertest.h"
#include "tests/kit/hangguard.h"

#include <QtCore/QElapsedTimer>
#include <QtCore/QPointer>
#include <QtCore/QSemaphore>
#include <QtCore/QTemporaryFile>
#include <QtNetwork/QTcpServer>
#include <QtNetwork/QTcpSocket>

#include <algorithm>
#include <atomic>
#include <climits>
#include <csignal>
#include <random>
#include <vector>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/resource.h>

using namespace dispatchertest;

namespace {
constexpr double EarliestFraction = 0.95; // coarse timers of Qt may be early by a twentieth

// GLib's dispatcher differs in some respects from Qt's own for Unix. We follow the latter.
bool isGlib()
{
    return dispatcher()->inherits("QEventDispatcherGlib");
}

// Fills the buffer: a is not writable until b reads.
void fill(const SocketPair &pair)
{
    const QByteArray block(65536, 'x');
    while (write(pair.a, block.constData(), size_t(block.size())) > 0) {}
}

void drain(const SocketPair &pair)
{
    QByteArray block(65536, Qt::Uninitialized);
    while (read(pair.b, block.data(), size_t(block.size())) > 0) {}
}

// A pair of connected TCP sockets: only they have urgent data.
SocketPair tcpPair()
{
    const Fd listener(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof(address);
    auto *generic = reinterpret_cast<sockaddr *>(&address);
    if (bind(listener, generic, size) != 0 || listen(listener, 1) != 0
        || getsockname(listener, generic, &size) != 0)
        qFatal("listening failed");

    SocketPair pair;
    pair.a = Fd(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (connect(pair.a, generic, size) != 0)
        qFatal("connect failed");
    pair.b = Fd(accept4(listener, nullptr, nullptr, SOCK_CLOEXEC));
    return pair;
}
} // namespace

/*!
    The contract of an event dispatcher: each scenario runs with Qt's two dispatchers for Unix and
    with ours, without and with moderation of its wake-ups, and must end the same.
*/
class tst_DispatcherContract : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase_data();
    void initTestCase();
    void init();

    void returnValue();
    void signalsOfATurn();
    void postedBeforeStart();
    void postedFromManyThreads();
    void wakeUpEndsWait();
    void interruptEndsWait();
    void quitFromOtherThread();
    void waitsInsteadOfSpinning();
    void signalDoesNotEndWait();
    void excludedKindsWait();
    void deferredDeleteInNestedLoop();

    void timerIsPreciseFromBelow_data();
    void timerIsPreciseFromBelow();
    void timersFireInOrder();
    void zeroTimerStarvesNothing();
    void timerKilledInOwnSlot();
    void timerRestartedInOwnSlot();
    void timerDeletedInOwnSlot();
    void timerKilledByAnother();
    void timerIsNotReentered();
    void zeroTimerIsNotReentered();
    void missedBeatsAreSkipped();
    void registeredTimers();
    void remainingTime();
    void longestInterval();

    void readNotifier();
    void writeNotifier();
    void exceptionNotifier();
    void allKindsOnOneDescriptor();
    void hangUpActivatesAll();
    void disabledInOwnSlot();
    void deletedInOwnSlot();
    void removedInAnothersSlot();
    void otherKindRemovedInSlot();
    void oneKindRemovedInAnothersSlot();
    void addedInSlot();
    void nestedLoopInSlot();
    void nestedLoopRemovesReadyNotifier();
    void secondNotifierOfOneKind();
    void closedBeforeDisabled();
    void numberReusedAfterClose();
    void numberReusedInSlot();
    void fileReturnsUnderItsNumber();
    void regularFileIsAlwaysReady();
    void invalidDescriptorIsDisabled();
    void postedEventsAmongReadySockets();
    void randomUse();

    void timerMovesToThread();
    void socketMovesToThread();
    void echo();
    void threadEndsWithAllRunning();

private:
    void inThread(const std::function<void()> &body);
    void setDispatcher(QThread *thread);
};

void tst_DispatcherContract::initTestCase_data()
{
    QTest::addColumn<QByteArray>("dispatcher");
    QTest::newRow("epoll") << QByteArray("epoll");
    QTest::newRow("epoll-moderated") << QByteArray("epoll-moderated");
    QTest::newRow("qt") << QByteArray("qt"); // the default: GLib's, where Qt is built with it
    QTest::newRow("qt-unix") << QByteArray("qt-unix");
}

void tst_DispatcherContract::initTestCase()
{
    rlimit limit{};
    QCOMPARE(getrlimit(RLIMIT_NOFILE, &limit), 0);
    limit.rlim_cur = limit.rlim_max;
    QCOMPARE(setrlimit(RLIMIT_NOFILE, &limit), 0);
    QVERIFY2(limit.rlim_max >= 4096, "These tests need 4,096 descriptors.");
}

void tst_DispatcherContract::init()
{
    QTest::failOnWarning(expression(".*"));
}

// Runs the body in a thread of its own that has the row's dispatcher, outside of any event loop.
void tst_DispatcherContract::inThread(const std::function<void()> &body)
{
    BodyThread thread(body);
    setDispatcher(&thread);
    thread.start();
    QVERIFY(thread.wait(2 * HangGuardMs));
}

// Before the thread starts.
void tst_DispatcherContract::setDispatcher(QThread *thread)
{
    QFETCH_GLOBAL(QByteArray, dispatcher);
    qputenv("QT_NO_GLIB", dispatcher == "qt-unix" ? "1" : ""); // read when the thread starts
    if (dispatcher == "epoll")
        setEpollDispatcher(thread);
    else if (dispatcher == "epoll-moderated")
        setEpollDispatcher(thread, std::chrono::milliseconds(5));
}

void tst_DispatcherContract::returnValue()
{
    inThread([] {
        settle();
        QVERIFY(!turn());
        dispatcher()->wakeUp();
        QVERIFY(turn());
        QVERIFY(!turn());

        QObject object;
        bool called = false;
        QMetaObject::invokeMethod(
                &object, [&] { called = true; }, Qt::QueuedConnection);
        QVERIFY(turn());
        QVERIFY(called);
        QVERIFY(!turn());

        const SocketPair pair;
        QSocketNotifier notifier(pair.a, QSocketNotifier::Read);
        onActivated(&notifier, [&] { pair.receive(); });
        QVERIFY(!turn());
        pair.send();
        QVERIFY(turn());
        QVERIFY(!turn());
    });
}

void tst_DispatcherContract::signalsOfATurn()
{
    inThread([] {
        QByteArray trace;
        QObject context;
        connect(dispatcher(), &QAbstractEventDispatcher::awake, &context, [&] { trace += 'w'; });
        connect(dispatcher(), &QAbstractEventDispatcher::aboutToBlock, &context,
                [&] { trace += 'b'; });
        settle();

        trace.clear();
        turn();
        QVERIFY(trace.contains('w'));
        QVERIFY(!trace.contains('b')); // it does not wait

        QTimer timer;
        bool fired = false;
        connect(&timer, &QTimer::timeout, &context, [&] { fired = true; });
        timer.start(20);
        trace.clear();
        QVERIFY(turnUntil([&] { return fired; }));
        QVERIFY(trace.contains('w'));
        QVERIFY(trace.contains('b'));
    });
}

void tst_DispatcherContract::postedBeforeStart()
{
    QObject object;
    QThread thread;
    setDispatcher(&thread);
    QSemaphore called;
    object.moveToThread(&thread);
    QMetaObject::invokeMethod(
            &object, [&] { called.release(); }, Qt::QueuedConnection);
    thread.start();
    QVERIFY(called.tryAcquire(1, HangGuardMs));
    thread.quit();
    QVERIFY(thread.wait(HangGuardMs));
}

void tst_DispatcherContract::postedFromManyThreads()
{
    constexpr int Senders = 8;
    constexpr int Events = 5000;
    inThread([] {
        QObject receiver;
        int received = 0;
        std::vector<std::unique_ptr<QThread>> senders;
        for (int i = 0; i < Senders; ++i) {
            senders.emplace_back(QThread::create([&] {
                for (int event = 0; event < Events; ++event) {
                    QMetaObject::invokeMethod(
                            &receiver, [&] { ++received; }, Qt::QueuedConnection);
                }
            }));
            senders.back()->start();
        }
        QVERIFY(turnUntil([&] { return received == Senders * Events; }));
        for (const auto &sender : senders)
            QVERIFY(sender->wait(HangGuardMs));
        settle();
        QCOMPARE(received, Senders * Events);
    });
}

// Each call must end a wait that begins after it or that it finds: none may be lost.
void tst_DispatcherContract::wakeUpEndsWait()
{
    constexpr int Rounds = 5000;
    inThread([] {
        settle();
        QAbstractEventDispatcher *const waiting = dispatcher();
        QSemaphore next;
        std::atomic<int> called{0};
        const std::unique_ptr<QThread> waker(QThread::create([&] {
            for (int round = 0; round < Rounds; ++round) {
                next.acquire();
                ++called;
                waiting->wakeUp();
            }
        }));
        waker->start();
        for (int round = 1; round <= Rounds; ++round) {
            next.release();
            while (called < round)
                turn(QEventLoop::WaitForMoreEvents);
        }
        QVERIFY(waker->wait(HangGuardMs));
    });
}

void tst_DispatcherContract::interruptEndsWait()
{
    inThread([] {
        settle();
        QAbstractEventDispatcher *const waiting = dispatcher();

        // Before the turn waits, from an event that it sends. Nothing else is done in that turn.
        QObject object;
        const SocketPair pair;
        bool activated = false;
        QSocketNotifier notifier(pair.a, QSocketNotifier::Read);
        onActivated(&notifier, [&] {
            activated = true;
            notifier.setEnabled(false);
        });
        pair.send();
        QMetaObject::invokeMethod(
                &object, [&] { waiting->interrupt(); }, Qt::QueuedConnection);
        turn(QEventLoop::WaitForMoreEvents);
        QVERIFY(!activated || isGlib());
        settle();
        QVERIFY(activated);

        // While it waits.
        QSemaphore aboutToBlock;
        connect(waiting, &QAbstractEventDispatcher::aboutToBlock, &object,
                [&] { aboutToBlock.release(); });
        const std::unique_ptr<QThread> other(QThread::create([&] {
            aboutToBlock.acquire();
            waiting->interrupt();
        }));
        other->start();
        turn(QEventLoop::WaitForMoreEvents);
        QVERIFY(other->wait(HangGuardMs));
    });
}

void tst_DispatcherContract::quitFromOtherThread()
{
    for (int i = 0; i < 100; ++i) {
        QThread thread; // runs an event loop
        setDispatcher(&thread);
        QSemaphore waits;
        if (i % 2 == 0) {
            connect(
                    &thread, &QThread::started, &thread,
                    [&] {
                        connect(dispatcher(), &QAbstractEventDispatcher::aboutToBlock, dispatcher(),
                                [&] { waits.release(); });
                    },
                    Qt::DirectConnection);
        } else {
            waits.release(); // quits before it has come to wait
        }
        thread.start();
        QVERIFY(waits.tryAcquire(1, HangGuardMs));
        thread.quit();
        QVERIFY(thread.wait(HangGuardMs));
    }
}

void tst_DispatcherContract::waitsInsteadOfSpinning()
{
    inThread([] {
        // What a disabled notifier leaves unread is no event.
        const SocketPair pair;
        QSocketNotifier read(pair.a, QSocketNotifier::Read);
        QSocketNotifier write(pair.a, QSocketNotifier::Write);
        turn();
        read.setEnabled(false);
        write.setEnabled(false);
        pair.send();
        settle();

        TimerObject object;
        int beats = 0;
        object.beat = [&](int) { ++beats; };
        object.startTimer(3, Qt::PreciseTimer);
        int turns = 0;
        while (beats < 20) {
            turn(QEventLoop::WaitForMoreEvents);
            ++turns;
        }
        QVERIFY2(turns < 60, qPrintable(QString::number(turns)));
    });
}

// The kernel interrupts a wait for a signal that has a handler.
void tst_DispatcherContract::signalDoesNotEndWait()
{
    struct sigaction action
    {};
    action.sa_handler = [](int) {};
    struct sigaction previous
    {};
    QCOMPARE(sigaction(SIGUSR1, &action, &previous), 0);
    inThread([] {
        settle();
        const pthread_t waiting = pthread_self();
        std::atomic<bool> ended{false};
        const std::unique_ptr<QThread> other(QThread::create([&] {
            while (!ended) {
                pthread_kill(waiting, SIGUSR1);
                QThread::usleep(500);
            }
        }));
        other->start();
        TimerObject object;
        bool fired = false;
        object.beat = [&](int) { fired = true; };
        object.startTimer(100, Qt::PreciseTimer);
        int turns = 0;
        while (!fired) {
            turn(QEventLoop::WaitForMoreEvents);
            ++turns;
        }
        ended = true;
        QVERIFY(other->wait(HangGuardMs));
        QVERIFY2(turns < 10, qPrintable(QString::number(turns)));
    });
    QCOMPARE(sigaction(SIGUSR1, &previous, nullptr), 0);
}

void tst_DispatcherContract::excludedKindsWait()
{
    inThread([] {
        if (isGlib())
            return; // it excludes no sockets
        const SocketPair pair;
        int activations = 0;
        QSocketNotifier notifier(pair.a, QSocketNotifier::Read);
        onActivated(&notifier, [&] {
            ++activations;
            pair.receive();
        });
        pair.send();
        for (int i = 0; i < 3; ++i)
            turn(QEventLoop::ExcludeSocketNotifiers | QEventLoop::ExcludeUserInputEvents);
        QCOMPARE(activations, 0);

        TimerObject object;
        bool fired = false;
        object.beat = [&](int) { fired = true; };
        object.startTimer(10);
        int turns = 0;
        while (!fired) { // waits for the timer, not for the socket
            turn(QEventLoop::ExcludeSocketNotifiers | QEventLoop::WaitForMoreEvents);
            ++turns;
        }
        QVERIFY2(turns < 10, qPrintable(QString::number(turns)));
        QCOMPARE(activations, 0);

        fired = false;
        while (activations == 0)
            turn(QEventLoop::X11ExcludeTimers | QEventLoop::WaitForMoreEvents);
        QThread::msleep(11); // not for synchronising: the timer has to fall due
        turn(QEventLoop::X11ExcludeTimers);
        QVERIFY(!fired);
        QVERIFY(turnUntil([&] { return activations == 1 && fired; }));
    });
}

void tst_DispatcherContract::deferredDeleteInNestedLoop()
{
    inThread([] {
        QPointer<QObject> object(new QObject);
        QEventLoop outer;
        QTimer::singleShot(0, &outer, [&] {
            object->deleteLater();
            QEventLoop inner;
            QTimer::singleShot(10, &inner, &QEventLoop::quit);
            inner.exec();
            QVERIFY(object); // its turn is when the loop that posted it comes back
            QTimer::singleShot(10, &outer, &QEventLoop::quit);
        });
        outer.exec();
        QVERIFY(!object);
    });
}

void tst_DispatcherContract::timerIsPreciseFromBelow_data()
{
    QTest::addColumn<int>("type");
    QTest::addColumn<int>("intervalMs");
    QTest::addColumn<int>("beats");
    QTest::newRow("precise 1 ms") << int(Qt::PreciseTimer) << 1 << 20;
    QTest::newRow("precise 7 ms") << int(Qt::PreciseTimer) << 7 << 10;
    QTest::newRow("coarse 15 ms") << int(Qt::CoarseTimer) << 15 << 5;
    QTest::newRow("coarse 30 ms") << int(Qt::CoarseTimer) << 30 << 5;
    QTest::newRow("coarse 99 ms") << int(Qt::CoarseTimer) << 99 << 3;
    QTest::newRow("coarse 100 ms") << int(Qt::CoarseTimer) << 100 << 3;
    QTest::newRow("coarse 240 ms") << int(Qt::CoarseTimer) << 240 << 2;
}

void tst_DispatcherContract::timerIsPreciseFromBelow()
{
    QFETCH(int, type);
    QFETCH(int, intervalMs);
    QFETCH(int, beats);
    inThread([=] {
        TimerObject object;
        int count = 0;
        object.beat = [&](int) { ++count; };
        QElapsedTimer elapsed;
        elapsed.start();
        object.startTimer(intervalMs, Qt::TimerType(type));
        for (int beat = 1; beat <= beats; ++beat) {
            QVERIFY(turnUntil([&] { return count >= beat; }));
            QCOMPARE(count, beat);
            // Qt's rounds under 100 ms to a few milliseconds more coarsely.
            const double earliest = type == Qt::PreciseTimer || intervalMs <= 20
                    ? beat * intervalMs
                    : beat * intervalMs * EarliestFraction - 4;
            QVERIFY(double(elapsed.nsecsElapsed()) / 1e6 >= earliest);
        }
    });
}

void tst_DispatcherContract::timersFireInOrder()
{
    inThread([] {
        TimerObject object;
        QList<int> order;
        object.beat = [&](int id) {
            order.append(id);
            object.killTimer(id);
        };
        const int third = object.startTimer(30, Qt::PreciseTimer);
        const int first = object.startTimer(10, Qt::PreciseTimer);
        const int second = object.startTimer(20, Qt::PreciseTimer);
        QThread::msleep(31); // not for synchronising: all have to be due in one turn
        turn();
        QCOMPARE(order, (QList<int>{first, second, third}));
        QVERIFY(dispatcher()->registeredTimers(&object).isEmpty());
    });
}

void tst_DispatcherContract::zeroTimerStarvesNothing()
{
    inThread([] {
        TimerObject object;
        int beats = 0;
        object.beat = [&](int) { ++beats; };
        object.startTimer(0);

        const SocketPair pair;
        int activations = 0;
        QSocketNotifier notifier(pair.a, QSocketNotifier::Read);
        onActivated(&notifier, [&] {
            pair.receive();
            if (++activations < 10)
                pair.send();
        });
        int posted = 0;
        std::function<void()> post = [&] {
            if (++posted < 10)
                QMetaObject::invokeMethod(&object, post, Qt::QueuedConnection);
        };
        post();
        QTimer timer;
        int timeouts = 0;
        connect(&timer, &QTimer::timeout, &object, [&] { ++timeouts; });
        timer.start(5);
        pair.send();
        QVERIFY(turnUntil([&] { return activations == 10 && posted == 10 && timeouts >= 2; }));
        QVERIFY(beats >= 10);
    });
}

void tst_DispatcherContract::timerKilledInOwnSlot()
{
    inThread([] {
        TimerObject object;
        int beats = 0;
        object.beat = [&](int id) {
            ++beats;
            object.killTimer(id);
        };
        object.startTimer(1);
        object.startTimer(0);
        QVERIFY(turnUntil([&] { return beats == 2; }));
        QVERIFY(dispatcher()->registeredTimers(&object).isEmpty());
        QThread::msleep(3); // not for synchronising: beats that should not come would be due
        for (int i = 0; i < 5; ++i)
            turn();
        QCOMPARE(beats, 2);
    });
}

void tst_DispatcherContract::timerRestartedInOwnSlot()
{
    inThread([] {
        QTimer timer;
        timer.setSingleShot(true);
        timer.setTimerType(Qt::PreciseTimer);
        QElapsedTimer elapsed;
        int beats = 0;
        connect(&timer, &QTimer::timeout, &timer, [&] {
            if (++beats < 3)
                timer.start(10 * beats);
        });
        elapsed.start();
        timer.start(5);
        QVERIFY(turnUntil([&] { return beats == 3; }));
        QVERIFY(elapsed.elapsed() >= 5 + 10 + 20);
        QVERIFY(!timer.isActive());
        QCOMPARE(timer.remainingTime(), -1);

        // Also one that is not single-shot, to a longer interval and to none.
        QTimer other;
        int turns = 0;
        connect(&other, &QTimer::timeout, &other, [&] { other.start(++turns == 1 ? 0 : 30); });
        other.start(1);
        QVERIFY(turnUntil([&] { return turns == 2; }));
        QCOMPARE(dispatcher()->registeredTimers(&other).size(), 1);
        QCOMPARE(dispatcher()->registeredTimers(&other).first().interval, 30);
    });
}

void tst_DispatcherContract::timerDeletedInOwnSlot()
{
    inThread([] {
        auto *object = new TimerObject;
        bool fired = false;
        object->beat = [&](int) {
            fired = true;
            delete object;
        };
        object->startTimer(0);
        object->startTimer(0); // due as well, and gone with the object
        QVERIFY(turnUntil([&] { return fired; }));

        auto *timer = new QTimer;
        fired = false;
        connect(timer, &QTimer::timeout, timer, [&] {
            fired = true;
            delete timer;
        });
        timer->start(1);
        QVERIFY(turnUntil([&] { return fired; }));
        turn();
    });
}

void tst_DispatcherContract::timerKilledByAnother()
{
    inThread([] {
        TimerObject first;
        TimerObject second;
        QList<const QObject *> fired;
        int firstId = 0;
        int secondId = 0;
        first.beat = [&](int id) {
            fired.append(&first);
            first.killTimer(id);
            second.killTimer(secondId);
        };
        second.beat = [&](int id) {
            fired.append(&second);
            second.killTimer(id);
            first.killTimer(firstId);
        };
        firstId = first.startTimer(1, Qt::PreciseTimer);
        secondId = second.startTimer(1, Qt::PreciseTimer);
        QThread::msleep(3); // not for synchronising: both have to be due in one turn
        QVERIFY(turnUntil([&] { return !fired.isEmpty(); }));
        QCOMPARE(fired, QList<const QObject *>{&first});
    });
}

void tst_DispatcherContract::timerIsNotReentered()
{
    inThread([] {
        TimerObject object;
        int depth = 0;
        int deepest = 0;
        int beats = 0;
        int others = 0;
        QTimer other;
        connect(&other, &QTimer::timeout, &object, [&] { ++others; });
        object.beat = [&](int) {
            deepest = qMax(deepest, ++depth);
            const int before = others;
            if (++beats == 1)
                QVERIFY(turnUntil([&] { return others >= before + 5; }));
            --depth;
        };
        object.startTimer(1, Qt::PreciseTimer);
        other.start(3);
        QVERIFY(turnUntil([&] { return beats >= 3; }));
        QCOMPARE(deepest, 1);
    });
}

// Nor does it keep the nested loop awake.
void tst_DispatcherContract::zeroTimerIsNotReentered()
{
    inThread([] {
        TimerObject object;
        int beats = 0;
        int turns = 0;
        object.beat = [&](int id) {
            if (++beats > 1) {
                object.killTimer(id);
                return;
            }
            QTimer end;
            end.setSingleShot(true);
            end.start(50);
            while (end.isActive()) {
                turn(QEventLoop::WaitForMoreEvents);
                ++turns;
            }
        };
        object.startTimer(0);
        QVERIFY(turnUntil([&] { return beats == 2; }));
        QVERIFY2(turns < 20, qPrintable(QString::number(turns)));
    });
}

void tst_DispatcherContract::missedBeatsAreSkipped()
{
    inThread([] {
        constexpr int IntervalMs = 10;
        constexpr int BusyMs = 100;
        TimerObject object;
        int beats = 0;
        object.beat = [&](int) {
            if (++beats == 1)
                QThread::msleep(BusyMs); // not for synchronising: ten beats are missed
        };
        QElapsedTimer elapsed;
        elapsed.start();
        object.startTimer(IntervalMs, Qt::PreciseTimer);
        QVERIFY(turnUntil([&] { return beats >= 6; }));
        // The second beat follows the first at once, the others at intervals.
        QVERIFY(elapsed.elapsed() >= IntervalMs + BusyMs + (beats - 2) * IntervalMs);
    });
}

void tst_DispatcherContract::registeredTimers()
{
    inThread([] {
        TimerObject object;
        TimerObject other;
        QVERIFY(dispatcher()->registeredTimers(&object).isEmpty());
        const int precise = object.startTimer(1500, Qt::PreciseTimer);
        const int coarse = object.startTimer(2000, Qt::CoarseTimer);
        const int veryCoarse = object.startTimer(60000, Qt::VeryCoarseTimer);
        const int others = other.startTimer(0, Qt::PreciseTimer);

        QList<QAbstractEventDispatcher::TimerInfo> timers = dispatcher()->registeredTimers(&object);
        std::sort(timers.begin(), timers.end(),
                  [](const auto &a, const auto &b) { return a.interval < b.interval; });
        QCOMPARE(timers.size(), 3);
        QCOMPARE(timers[0].timerId, precise);
        QCOMPARE(timers[0].interval, 1500);
        QCOMPARE(timers[0].timerType, Qt::PreciseTimer);
        QCOMPARE(timers[1].timerId, coarse);
        QCOMPARE(timers[1].interval, 2000);
        QCOMPARE(timers[1].timerType, Qt::CoarseTimer);
        QCOMPARE(timers[2].timerId, veryCoarse);
        QCOMPARE(timers[2].interval, 60000);
        QCOMPARE(timers[2].timerType, Qt::VeryCoarseTimer);

        object.killTimer(coarse);
        QCOMPARE(dispatcher()->registeredTimers(&object).size(), 2);
        QVERIFY(dispatcher()->unregisterTimers(&object));
        QVERIFY(dispatcher()->registeredTimers(&object).isEmpty());
        QCOMPARE(dispatcher()->registeredTimers(&other).size(), 1);
        QCOMPARE(dispatcher()->registeredTimers(&other).first().timerId, others);
        QVERIFY(dispatcher()->unregisterTimer(others));
        QVERIFY(!dispatcher()->unregisterTimer(others));
    });
}

void tst_DispatcherContract::remainingTime()
{
    inThread([] {
        TimerObject object;
        object.beat = [](int) {};
        const int precise = object.startTimer(30000, Qt::PreciseTimer);
        const int veryCoarse = object.startTimer(100000, Qt::VeryCoarseTimer);
        const int soon = object.startTimer(1, Qt::PreciseTimer);
        QVERIFY(dispatcher()->remainingTime(precise) <= 30000);
        QVERIFY(dispatcher()->remainingTime(precise) > 10000);
        QVERIFY(dispatcher()->remainingTime(veryCoarse) <= 101000);
        QVERIFY(dispatcher()->remainingTime(veryCoarse) > 80000);
        QThread::msleep(2); // not for synchronising: it has to be overdue
        QCOMPARE(dispatcher()->remainingTime(soon), 0);
        object.killTimer(soon);
        dispatcher()->unregisterTimer(precise);
        dispatcher()->unregisterTimer(veryCoarse);
    });
}

void tst_DispatcherContract::longestInterval()
{
    inThread([] {
        TimerObject object;
        bool early = false;
        object.beat = [&](int) { early = true; };
        const int precise = object.startTimer(INT_MAX, Qt::PreciseTimer);
        object.startTimer(INT_MAX, Qt::CoarseTimer);
        object.startTimer(INT_MAX, Qt::VeryCoarseTimer);
        QVERIFY(dispatcher()->remainingTime(precise) > INT_MAX - HangGuardMs);

        dispatcher()->wakeUp();
        turn(QEventLoop::WaitForMoreEvents);
        QTimer timer;
        bool fired = false;
        connect(&timer, &QTimer::timeout, &timer, [&] { fired = true; });
        timer.start(10);
        QVERIFY(turnUntil([&] { return fired; }));
        QVERIFY(!early);
    });
}

void tst_DispatcherContract::readNotifier()
{
    inThread([] {
        const SocketPair pair;
        int activations = 0;
        QSocketNotifier notifier(pair.a, QSocketNotifier::Read);
        onActivated(&notifier, [&](QSocketDescriptor socket, QSocketNotifier::Type type) {
            QCOMPARE(int(socket), int(pair.a));
            QCOMPARE(type, QSocketNotifier::Read);
            ++activations;
        });
        turn();
        QCOMPARE(activations, 0);

        // As long as there is something to read.
        pair.send();
        pair.send();
        QVERIFY(turnUntil([&] { return activations == 3; }));
        pair.receive();
        QVERIFY(turnUntil([&] { return activations == 4; }));
        pair.receive();
        settle();
        QCOMPARE(activations, 4);

        notifier.setEnabled(false);
        pair.send();
        settle();
        QCOMPARE(activations, 4);
        notifier.setEnabled(true);
        QVERIFY(turnUntil([&] { return activations == 5; }));
    });
}

void tst_DispatcherContract::writeNotifier()
{
    inThread([] {
        const SocketPair pair;
        int activations = 0;
        QSocketNotifier notifier(pair.a, QSocketNotifier::Write);
        onActivated(&notifier, [&] { ++activations; });
        QVERIFY(turnUntil([&] { return activations == 2; }));

        fill(pair);
        settle();
        const int before = activations;
        settle();
        QCOMPARE(activations, before);
        drain(pair);
        QVERIFY(turnUntil([&] { return activations > before; }));
    });
}

void tst_DispatcherContract::exceptionNotifier()
{
    inThread([] {
        const SocketPair pair = tcpPair();
        QByteArray urgent;
        QSocketNotifier notifier(pair.a, QSocketNotifier::Exception);
        onActivated(&notifier, [&](QSocketDescriptor, QSocketNotifier::Type type) {
            QCOMPARE(type, QSocketNotifier::Exception);
            char c = 0;
            QCOMPARE(recv(pair.a, &c, 1, MSG_OOB), ssize_t(1));
            urgent += c;
        });
        pair.send(); // ordinary data are none of its business
        settle();
        QCOMPARE(urgent, QByteArray());
        QCOMPARE(::send(pair.b, "!", 1, MSG_OOB), ssize_t(1));
        QVERIFY(turnUntil([&] { return !urgent.isEmpty(); }));
        QCOMPARE(urgent, QByteArray("!"));
    });
}

void tst_DispatcherContract::allKindsOnOneDescriptor()
{
    inThread([] {
        const SocketPair pair = tcpPair();
        QByteArray trace;
        QSocketNotifier write(pair.a, QSocketNotifier::Write);
        QSocketNotifier exception(pair.a, QSocketNotifier::Exception);
        QSocketNotifier read(pair.a, QSocketNotifier::Read);
        onActivated(&read, [&] {
            trace += 'r';
            read.setEnabled(false);
        });
        onActivated(&write, [&] {
            trace += 'w';
            write.setEnabled(false);
        });
        onActivated(&exception, [&] {
            trace += 'e';
            exception.setEnabled(false);
        });

        QVERIFY(turnUntil([&] { return !trace.isEmpty(); }));
        QCOMPARE(trace, QByteArray("w"));
        pair.send();
        QVERIFY(turnUntil([&] { return trace.size() == 2; }));
        QCOMPARE(trace, QByteArray("wr"));
        QCOMPARE(::send(pair.b, "!", 1, MSG_OOB), ssize_t(1));
        QVERIFY(turnUntil([&] { return trace.size() == 3; }));
        QCOMPARE(trace, QByteArray("wre"));
        settle();
        QCOMPARE(trace, QByteArray("wre"));

        // All at once.
        write.setEnabled(true);
        exception.setEnabled(true);
        read.setEnabled(true);
        QVERIFY(turnUntil([&] { return trace.size() == 6; }));
        QCOMPARE(QByteArray(trace.right(3)).count('r'), 1);
        QCOMPARE(QByteArray(trace.right(3)).count('w'), 1);
        QCOMPARE(QByteArray(trace.right(3)).count('e'), 1);
    });
}

void tst_DispatcherContract::hangUpActivatesAll()
{
    inThread([] {
        for (const auto type :
             {QSocketNotifier::Read, QSocketNotifier::Write, QSocketNotifier::Exception}) {
            SocketPair pair;
            int activations = 0;
            fill(pair); // not writable
            QSocketNotifier notifier(pair.a, type);
            onActivated(&notifier, [&] {
                ++activations;
                notifier.setEnabled(false);
            });
            settle();
            QCOMPARE(activations, 0);
            pair.b.reset();
            if (isGlib() && type != QSocketNotifier::Read)
                continue; // it does not ask for hang-ups on behalf of the others
            QVERIFY(turnUntil([&] { return activations == 1; }));
        }
    });
}

void tst_DispatcherContract::disabledInOwnSlot()
{
    inThread([] {
        const SocketPair pair;
        int activations = 0;
        QSocketNotifier notifier(pair.a, QSocketNotifier::Read);
        onActivated(&notifier, [&] {
            ++activations;
            notifier.setEnabled(false);
            if (activations == 2)
                notifier.setEnabled(true);
        });
        pair.send();
        settle();
        QCOMPARE(activations, 1);
        notifier.setEnabled(true);
        QVERIFY(turnUntil([&] { return activations == 3; }));
        settle();
        QCOMPARE(activations, 3);
    });
}

void tst_DispatcherContract::deletedInOwnSlot()
{
    inThread([] {
        const SocketPair pair;
        QPointer<QSocketNotifier> read(new QSocketNotifier(pair.a, QSocketNotifier::Read));
        QPointer<QSocketNotifier> write(new QSocketNotifier(pair.a, QSocketNotifier::Write));
        onActivated(read, [&] { delete read; });
        onActivated(write, [&] { delete write; });
        pair.send();
        QVERIFY(turnUntil([&] { return !read && !write; }));
        turn();
    });
}

// Two sockets are ready in one turn: the first to be activated removes the other.
void tst_DispatcherContract::removedInAnothersSlot()
{
    inThread([] {
        const SocketPair pairs[2];
        int activations = 0;
        std::unique_ptr<QSocketNotifier> notifiers[2];
        for (int i = 0; i < 2; ++i) {
            notifiers[i] = std::make_unique<QSocketNotifier>(pairs[i].a, QSocketNotifier::Read);
            onActivated(notifiers[i].get(), [&, i] {
                ++activations;
                pairs[i].receive();
                notifiers[1 - i].reset();
            });
            pairs[i].send();
        }
        settle();
        QCOMPARE(activations, 1);
    });
}

void tst_DispatcherContract::otherKindRemovedInSlot()
{
    inThread([] {
        const SocketPair pair;
        int activations = 0;
        std::unique_ptr<QSocketNotifier> read;
        std::unique_ptr<QSocketNotifier> write;
        read = std::make_unique<QSocketNotifier>(pair.a, QSocketNotifier::Read);
        write = std::make_unique<QSocketNotifier>(pair.a, QSocketNotifier::Write);
        onActivated(read.get(), [&] {
            ++activations;
            pair.receive();
            write.reset();
        });
        onActivated(write.get(), [&] {
            ++activations;
            write->setEnabled(false);
            read.reset();
        });
        pair.send();
        settle();
        QCOMPARE(activations, 1);
        QVERIFY(!read != !write);
    });
}

// As before, but one of two kinds stays, and is ready as well.
void tst_DispatcherContract::oneKindRemovedInAnothersSlot()
{
    inThread([] {
        const SocketPair pairs[2];
        std::unique_ptr<QSocketNotifier> read[2];
        std::unique_ptr<QSocketNotifier> write[2];
        int reads = 0;
        int writes = 0;
        for (int i = 0; i < 2; ++i) {
            read[i] = std::make_unique<QSocketNotifier>(pairs[i].a, QSocketNotifier::Read);
            write[i] = std::make_unique<QSocketNotifier>(pairs[i].a, QSocketNotifier::Write);
            onActivated(read[i].get(), [&, i] {
                ++reads;
                pairs[i].receive();
                read[1 - i].reset();
            });
            onActivated(write[i].get(), [&, i] {
                ++writes;
                write[i]->setEnabled(false);
            });
            pairs[i].send();
        }
        QVERIFY(turnUntil([&] { return writes == 2; }));
        settle();
        QCOMPARE(reads, 1);
        QCOMPARE(writes, 2);
    });
}

void tst_DispatcherContract::addedInSlot()
{
    inThread([] {
        const SocketPair first;
        const SocketPair second;
        std::unique_ptr<QSocketNotifier> added;
        std::unique_ptr<QSocketNotifier> write;
        int activations = 0;
        QSocketNotifier notifier(first.a, QSocketNotifier::Read);
        onActivated(&notifier, [&] {
            first.receive();
            added = std::make_unique<QSocketNotifier>(second.a, QSocketNotifier::Read);
            onActivated(added.get(), [&] {
                second.receive();
                ++activations;
            });
            write = std::make_unique<QSocketNotifier>(first.a, QSocketNotifier::Write);
            onActivated(write.get(), [&] {
                write->setEnabled(false);
                ++activations;
            });
        });
        second.send();
        first.send();
        QVERIFY(turnUntil([&] { return activations == 2; }));
    });
}

void tst_DispatcherContract::nestedLoopInSlot()
{
    inThread([] {
        constexpr int Count = 20;
        std::vector<SocketPair> pairs(Count);
        std::vector<std::unique_ptr<QSocketNotifier>> notifiers;
        int activations = 0;
        int completed = 0;
        for (const SocketPair &pair : pairs) {
            notifiers.push_back(std::make_unique<QSocketNotifier>(pair.a, QSocketNotifier::Read));
            onActivated(notifiers.back().get(), [&] {
                pair.receive(); // fails if it is activated again without need
                if (++activations < Count)
                    QVERIFY(turnUntil([&] { return activations == Count; }));
                ++completed;
            });
        }
        for (const SocketPair &pair : pairs)
            pair.send();
        QVERIFY(turnUntil([&] { return completed == Count; }));
        QCOMPARE(activations, Count);
        settle();
        QCOMPARE(activations, Count);
    });
}

void tst_DispatcherContract::nestedLoopRemovesReadyNotifier()
{
    inThread([] {
        constexpr int Count = 20;
        std::vector<SocketPair> pairs(Count);
        std::vector<std::unique_ptr<QSocketNotifier>> notifiers(Count);
        int activations = 0;
        for (size_t i = 0; i < Count; ++i) {
            notifiers[i] = std::make_unique<QSocketNotifier>(pairs[i].a, QSocketNotifier::Read);
            onActivated(notifiers[i].get(), [&, i] {
                pairs[i].receive();
                if (++activations > 1)
                    return;
                // In the nested turn, all of the others vanish, their numbers come to new sockets.
                QMetaObject::invokeMethod(
                        notifiers[i].get(),
                        [&, i] {
                            for (size_t other = 0; other < Count; ++other) {
                                if (other == i)
                                    continue;
                                notifiers[other].reset();
                                pairs[other] = SocketPair();
                                notifiers[other] = std::make_unique<QSocketNotifier>(
                                        pairs[other].a, QSocketNotifier::Read);
                                onActivated(notifiers[other].get(), [&] { ++activations; });
                            }
                        },
                        Qt::QueuedConnection);
                turn();
            });
        }
        for (const SocketPair &pair : pairs)
            pair.send();
        QVERIFY(turnUntil([&] { return activations > 0; }));
        settle();
        QCOMPARE(activations, 1); // nothing was sent to the new ones
    });
}

void tst_DispatcherContract::secondNotifierOfOneKind()
{
    inThread([] {
        if (isGlib())
            return; // it serves both
        const SocketPair pair;
        QByteArray trace;
        QTest::ignoreMessage(QtWarningMsg, expression("Multiple socket notifiers"));
        auto first = std::make_unique<QSocketNotifier>(pair.a, QSocketNotifier::Read);
        auto second = std::make_unique<QSocketNotifier>(pair.a, QSocketNotifier::Read);
        onActivated(first.get(), [&] { trace += '1'; });
        onActivated(second.get(), [&] {
            trace += '2';
            pair.receive();
        });
        pair.send();
        QVERIFY(turnUntil([&] { return !trace.isEmpty(); }));
        QCOMPARE(trace, QByteArray("2"));

        QTest::ignoreMessage(QtWarningMsg, expression("Multiple socket notifiers"));
        first.reset(); // does not take the second along
        pair.send();
        QVERIFY(turnUntil([&] { return trace.size() == 2; }));
        QCOMPARE(trace, QByteArray("22"));
    });
}

void tst_DispatcherContract::closedBeforeDisabled()
{
    inThread([] {
        SocketPair pair;
        int activations = 0;
        auto read = std::make_unique<QSocketNotifier>(pair.a, QSocketNotifier::Read);
        auto write = std::make_unique<QSocketNotifier>(pair.a, QSocketNotifier::Write);
        onActivated(read.get(), [&] { ++activations; });
        write->setEnabled(false);
        pair.send();
        pair.a.reset();
        read.reset();
        write.reset();
        settle();
        QCOMPARE(activations, 0);
    });
}

// The number of a descriptor that was closed too early comes to another socket.
void tst_DispatcherContract::numberReusedAfterClose()
{
    inThread([] {
        SocketPair old;
        const int number = old.a;
        auto oldNotifier = std::make_unique<QSocketNotifier>(number, QSocketNotifier::Read);
        onActivated(oldNotifier.get(), [] { QFAIL("The old socket is closed."); });
        turn();

        SocketPair pair;
        QCOMPARE(dup2(pair.a, number), number); // closes the old one
        oldNotifier.reset();
        int activations = 0;
        QSocketNotifier notifier(number, QSocketNotifier::Read);
        onActivated(&notifier, [&] {
            ++activations;
            pair.receive();
        });
        pair.send();
        QVERIFY(turnUntil([&] { return activations == 1; }));
        notifier.setEnabled(false);
        notifier.setEnabled(true);
        pair.send();
        QVERIFY(turnUntil([&] { return activations == 2; }));

        // Also when the notifier is the same, and a second kind joins it.
        QSocketNotifier write(number, QSocketNotifier::Write);
        write.setEnabled(false);
        const SocketPair next;
        QCOMPARE(dup2(next.a, number), number);
        bool written = false;
        onActivated(&write, [&] {
            written = true;
            write.setEnabled(false);
        });
        write.setEnabled(true);
        QVERIFY(turnUntil([&] { return written; }));
        notifier.disconnect();
        onActivated(&notifier, [&] {
            ++activations;
            next.receive();
        });
        next.send();
        QVERIFY(turnUntil([&] { return activations == 3; }));
    });
}

void tst_DispatcherContract::numberReusedInSlot()
{
    inThread([] {
        // Both are ready; the first to be activated puts another socket in the other's place.
        SocketPair pairs[2];
        std::unique_ptr<QSocketNotifier> notifiers[2];
        int activations = 0;
        for (int i = 0; i < 2; ++i) {
            notifiers[i] = std::make_unique<QSocketNotifier>(pairs[i].a, QSocketNotifier::Read);
            onActivated(notifiers[i].get(), [&, i] {
                ++activations;
                pairs[i].receive();
                const int other = 1 - i;
                notifiers[other].reset();
                SocketPair fresh;
                QCOMPARE(dup2(fresh.a, pairs[other].a), int(pairs[other].a));
                pairs[other].b = std::move(fresh.b);
                notifiers[other] =
                        std::make_unique<QSocketNotifier>(pairs[other].a, QSocketNotifier::Read);
                onActivated(notifiers[other].get(), [&, other] {
                    ++activations;
                    pairs[other].receive();
                });
            });
            pairs[i].send();
        }
        settle();
        QCOMPARE(activations, 1); // nothing was sent to the new one
        for (const SocketPair &pair : pairs)
            pair.send();
        QVERIFY(turnUntil([&] { return activations >= 2; }));
    });
}

// Another descriptor keeps the file open, and brings it back under the old number.
void tst_DispatcherContract::fileReturnsUnderItsNumber()
{
    inThread([] {
        const SocketPair pair;
        const Fd copy(dup(pair.a));
        auto notifier = std::make_unique<QSocketNotifier>(pair.a, QSocketNotifier::Read);
        turn();
        close(pair.a);
        notifier.reset();
        QCOMPARE(dup2(copy, pair.a), int(pair.a));

        bool activated = false;
        notifier = std::make_unique<QSocketNotifier>(pair.a, QSocketNotifier::Read);
        onActivated(notifier.get(), [&] {
            activated = true;
            pair.receive();
        });
        pair.send();
        QVERIFY(turnUntil([&] { return activated; }));
    });
}

void tst_DispatcherContract::regularFileIsAlwaysReady()
{
    inThread([] {
        QTemporaryFile file;
        QVERIFY(file.open());
        int reads = 0;
        int writes = 0;
        QSocketNotifier read(file.handle(), QSocketNotifier::Read);
        QSocketNotifier write(file.handle(), QSocketNotifier::Write);
        QSocketNotifier exception(file.handle(), QSocketNotifier::Exception);
        onActivated(&read, [&] { ++reads; });
        onActivated(&write, [&] { ++writes; });
        onActivated(&exception, [] { QFAIL("There is nothing urgent in a file."); });
        QVERIFY(turnUntil([&] { return reads >= 3 && writes >= 3; }));

        read.setEnabled(false);
        write.setEnabled(false);
        const int before = reads + writes;
        settle(); // the rest does not keep the loop busy
        QCOMPARE(reads + writes, before);
    });
}

void tst_DispatcherContract::invalidDescriptorIsDisabled()
{
    inThread([] {
        SocketPair pair;
        const int number = pair.a;
        pair.a.reset();
        QTest::ignoreMessage(QtWarningMsg,
                             expression("^QSocketNotifier: Invalid socket .* '?Read'?, disabling"));
        QTest::ignoreMessage(
                QtWarningMsg,
                expression("^QSocketNotifier: Invalid socket .* '?Write'?, disabling"));
        QSocketNotifier read(number, QSocketNotifier::Read);
        QSocketNotifier write(number, QSocketNotifier::Write);
        QVERIFY(read.isEnabled());
        turn();
        QVERIFY(!read.isEnabled());
        QVERIFY(!write.isEnabled());
        QVERIFY(!turn());

        SocketPair fresh;
        QCOMPARE(dup2(fresh.a, number), number);
        pair.a = Fd(number);
        pair.b = std::move(fresh.b);
        bool activated = false;
        onActivated(&read, [&] {
            activated = true;
            pair.receive();
        });
        read.setEnabled(true);
        pair.send();
        QVERIFY(turnUntil([&] { return activated; }));
    });
}

// More sockets are ready, always, than one turn serves.
void tst_DispatcherContract::postedEventsAmongReadySockets()
{
    inThread([] {
        constexpr int Count = 1500;
        std::vector<SocketPair> pairs(Count);
        std::vector<std::unique_ptr<QSocketNotifier>> notifiers;
        std::vector<int> activations(Count, 0);
        for (size_t i = 0; i < Count; ++i) {
            notifiers.push_back(
                    std::make_unique<QSocketNotifier>(pairs[i].a, QSocketNotifier::Read));
            onActivated(notifiers.back().get(), [&, i] { ++activations[i]; });
            pairs[i].send();
        }
        QObject object;
        int posted = 0;
        std::function<void()> post = [&] {
            ++posted;
            QMetaObject::invokeMethod(&object, post, Qt::QueuedConnection);
        };
        post();
        QTimer timer;
        int timeouts = 0;
        connect(&timer, &QTimer::timeout, &object, [&] { ++timeouts; });
        timer.start(0);

        constexpr int Turns = 60;
        for (int i = 0; i < Turns; ++i)
            turn();
        QVERIFY(posted >= Turns);
        QVERIFY(timeouts >= Turns / 2);
        const auto [least, most] = std::minmax_element(activations.begin(), activations.end());
        QVERIFY(*least >= Turns / 5);
        QVERIFY2(*most - *least <= 2,
                 qPrintable(QStringLiteral("%1 to %2").arg(*least).arg(*most)));
    });
}

// A fixed seed. The sanitizers look on; what is checked is that no activation is unfounded.
void tst_DispatcherContract::randomUse()
{
    inThread([] {
        constexpr size_t Count = 40;
        std::mt19937 random(4711);
        const auto below = [&](unsigned limit) { return size_t(random() % limit); };
        std::vector<SocketPair> pairs(Count);
        std::vector<std::unique_ptr<QSocketNotifier>> notifiers(Count);
        int depth = 0;
        int activations = 0;

        std::function<void(size_t)> renew;
        const std::function<void()> step = [&] {
            const size_t i = below(Count);
            switch (below(6)) {
            case 0:
                notifiers[i].reset();
                break;
            case 1:
                renew(i);
                break;
            case 2:
                if (notifiers[i])
                    notifiers[i]->setEnabled(!notifiers[i]->isEnabled());
                break;
            case 3:
                if (depth < 4) {
                    ++depth;
                    turn();
                    --depth;
                }
                break;
            default:
                pairs[i].send();
            }
        };
        renew = [&](size_t i) {
            notifiers[i].reset();
            if (below(2) == 0)
                pairs[i] = SocketPair(); // as a rule with the same numbers as one before
            notifiers[i] = std::make_unique<QSocketNotifier>(pairs[i].a, QSocketNotifier::Read);
            onActivated(notifiers[i].get(), [&, i] {
                ++activations;
                pairs[i].receive();
                step();
            });
        };

        QTimer timer;
        int beats = 0;
        connect(&timer, &QTimer::timeout, &timer, [&] {
            ++beats;
            for (int i = 0; i < 5; ++i)
                step();
        });
        timer.start(0);
        QVERIFY(turnUntil([&] { return beats >= 3000; }));
        QVERIFY(activations > 1000);
    });
}

void tst_DispatcherContract::timerMovesToThread()
{
    QThread other; // Qt's own
    other.start();
    inThread([&] {
        QThread *const home = QThread::currentThread();
        QTimer timer;
        std::atomic<int> beatsElsewhere{0};
        int beatsAtHome = 0;
        connect(
                &timer, &QTimer::timeout, &timer,
                [&] {
                    if (QThread::currentThread() == home) {
                        ++beatsAtHome;
                    } else if (++beatsElsewhere == 3) {
                        timer.moveToThread(home);
                    }
                },
                Qt::DirectConnection);
        timer.start(1);
        QVERIFY(turnUntil([&] { return beatsAtHome == 3; }));
        timer.moveToThread(&other);
        QVERIFY(dispatcher()->registeredTimers(&timer).isEmpty());
        QVERIFY(turnUntil([&] { return beatsAtHome == 6; }));
        QCOMPARE(beatsElsewhere.load(), 3);
        QCOMPARE(timer.thread(), home);
        QCOMPARE(dispatcher()->registeredTimers(&timer).size(), 1);
        // The timer is still at work in the other thread when its slot returns there.
        QMetaObject::invokeMethod(
                QAbstractEventDispatcher::instance(&other), [] {}, Qt::BlockingQueuedConnection);
    });
    other.quit();
    QVERIFY(other.wait(HangGuardMs));
}

void tst_DispatcherContract::socketMovesToThread()
{
    QThread other; // Qt's own
    other.start();
    inThread([&] {
        QThread *const home = QThread::currentThread();
        QTcpServer server;
        QVERIFY(server.listen(QHostAddress::LocalHost));
        QTcpSocket device;
        device.connectToHost(server.serverAddress(), server.serverPort());
        QVERIFY(turnUntil([&] { return server.hasPendingConnections(); }));
        std::unique_ptr<QTcpSocket> socket(server.nextPendingConnection());
        socket->setParent(nullptr);

        // Answers each byte, every other time from the other thread.
        int moves = 0;
        connect(
                socket.get(), &QTcpSocket::readyRead, socket.get(),
                [&] {
                    ++moves;
                    socket->write(socket->readAll());
                    // Not here: the socket is still at work when its signal returns.
                    QMetaObject::invokeMethod(
                            socket.get(),
                            [&] { socket->moveToThread(socket->thread() == home ? &other : home); },
                            Qt::QueuedConnection);
                },
                Qt::DirectConnection);
        constexpr int Messages = 20;
        QByteArray answers;
        for (int i = 1; i <= Messages; ++i) {
            device.write("x");
            QVERIFY(turnUntil([&] {
                answers += device.readAll();
                return answers.size() == i;
            }));
        }
        // An even number of moves, the last one under way.
        QVERIFY(turnUntil([&] { return socket->thread() == home; }));
        QCOMPARE(moves, Messages);
        settle();
    });
    other.quit();
    QVERIFY(other.wait(HangGuardMs));
}

void tst_DispatcherContract::echo()
{
    inThread([] {
        constexpr int Connections = 1000;
        constexpr int Rounds = 3;
        QTcpServer server;
        server.setListenBacklogSize(Connections);
        server.setMaxPendingConnections(Connections);
        connect(&server, &QTcpServer::newConnection, &server, [&] {
            while (QTcpSocket *socket = server.nextPendingConnection()) {
                connect(socket, &QTcpSocket::readyRead, socket,
                        [socket] { socket->write(socket->readAll()); });
                connect(socket, &QTcpSocket::disconnected, socket, &QObject::deleteLater);
            }
        });
        QVERIFY(server.listen(QHostAddress::LocalHost));

        QEventLoop loop;
        QTimer::singleShot(HangGuardMs, &loop, [&] { loop.exit(1); });
        int open = Connections;
        std::vector<std::unique_ptr<QTcpSocket>> devices;
        for (int i = 0; i < Connections; ++i) {
            devices.push_back(std::make_unique<QTcpSocket>());
            QTcpSocket *device = devices.back().get();
            const QByteArray message = "message " + QByteArray::number(i) + '\n';
            connect(device, &QTcpSocket::connected, device,
                    [device, message] { device->write(message); });
            connect(device, &QTcpSocket::readyRead, device,
                    [device, message, rounds = 0]() mutable {
                        if (device->bytesAvailable() < message.size())
                            return;
                        QCOMPARE(device->readAll(), message);
                        if (++rounds < Rounds)
                            device->write(message);
                        else
                            device->disconnectFromHost();
                    });
            connect(device, &QTcpSocket::disconnected, device, [&] {
                if (--open == 0)
                    loop.quit();
            });
            device->connectToHost(server.serverAddress(), server.serverPort());
        }
        QCOMPARE(loop.exec(), 0);
        QCOMPARE(open, 0);
        QVERIFY(turnUntil([&] { return server.findChildren<QTcpSocket *>().isEmpty(); }));
    });
}

void tst_DispatcherContract::threadEndsWithAllRunning()
{
    const SocketPair pair;
    const int before = openDescriptors();
    std::unique_ptr<QSocketNotifier> notifier;
    std::unique_ptr<TimerObject> object;
    inThread([&] {
        notifier = std::make_unique<QSocketNotifier>(pair.a, QSocketNotifier::Read);
        object = std::make_unique<TimerObject>();
        object->beat = [](int) {};
        object->startTimer(0);
        object->startTimer(1000);
        pair.send();
        turn();
        pair.send();
    });
    QCOMPARE(openDescriptors(), before);
    notifier.reset(); // now there is no dispatcher they could turn to
    QTest::ignoreMessage(QtWarningMsg, expression("Timers cannot be stopped from another thread"));
    object.reset();
}

QTEST_GUILESS_MAIN(tst_DispatcherContract)
#include "tst_dispatchercontract.moc"
