// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "dispatchercontract.h"
#include "dispatchertest.h"
#include "tests/kit/hangguard.h"

#include <QtCore/QPointer>
#include <QtCore/QSemaphore>

#include <atomic>
#include <csignal>
#include <vector>

using namespace dispatchertest;

// Turns of the event loop: which events they send, what they wait for, and what ends the wait.
class tst_DispatcherTurns : public DispatcherContract
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase_data() { addRows(); }
    void initTestCase() { prepare(); }
    void init() { begin(); }

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
};

void tst_DispatcherTurns::returnValue()
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

void tst_DispatcherTurns::signalsOfATurn()
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
        QVERIFY(!trace.contains('b')); // the turn did not wait

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

void tst_DispatcherTurns::postedBeforeStart()
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

void tst_DispatcherTurns::postedFromManyThreads()
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

// Each call must end a wait: the current one, or the next one. No call may be lost.
void tst_DispatcherTurns::wakeUpEndsWait()
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

void tst_DispatcherTurns::interruptEndsWait()
{
    inThread([] {
        settle();
        QAbstractEventDispatcher *const waiting = dispatcher();

        // Called before the turn waits, in an event of that turn. The turn then sends nothing else.
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

        // Called while the turn waits.
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

void tst_DispatcherTurns::quitFromOtherThread()
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
            waits.release(); // quit() comes before the loop waits
        }
        thread.start();
        QVERIFY(waits.tryAcquire(1, HangGuardMs));
        thread.quit();
        QVERIFY(thread.wait(HangGuardMs));
    }
}

void tst_DispatcherTurns::waitsInsteadOfSpinning()
{
    inThread([] {
        // Unread bytes of a disabled notifier are no event.
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

// A signal with a handler interrupts the wait in the kernel. The turn must continue to wait.
void tst_DispatcherTurns::signalDoesNotEndWait()
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

void tst_DispatcherTurns::excludedKindsWait()
{
    inThread([] {
        if (isGlib())
            return; // GLib's dispatcher does not exclude sockets
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
        while (!fired) { // each turn waits for the timer, not for the socket
            turn(QEventLoop::ExcludeSocketNotifiers | QEventLoop::WaitForMoreEvents);
            ++turns;
        }
        QVERIFY2(turns < 10, qPrintable(QString::number(turns)));
        QCOMPARE(activations, 0);

        fired = false;
        while (activations == 0)
            turn(QEventLoop::X11ExcludeTimers | QEventLoop::WaitForMoreEvents);
        QThread::msleep(11); // not for synchronising: the timer must be due
        turn(QEventLoop::X11ExcludeTimers);
        QVERIFY(!fired);
        QVERIFY(turnUntil([&] { return activations == 1 && fired; }));
    });
}

void tst_DispatcherTurns::deferredDeleteInNestedLoop()
{
    inThread([] {
        QPointer<QObject> object(new QObject);
        QEventLoop outer;
        QTimer::singleShot(0, &outer, [&] {
            object->deleteLater();
            QEventLoop inner;
            QTimer::singleShot(10, &inner, &QEventLoop::quit);
            inner.exec();
            QVERIFY(object); // deleted only in the loop that called deleteLater()
            QTimer::singleShot(10, &outer, &QEventLoop::quit);
        });
        outer.exec();
        QVERIFY(!object);
    });
}

QTEST_GUILESS_MAIN(tst_DispatcherTurns)
#include "tst_dispatcherturns.moc"
