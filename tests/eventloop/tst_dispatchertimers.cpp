// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "dispatchercontract.h"
#include "dispatchertest.h"
#include "tests/kit/hangguard.h"

#include <QtCore/QElapsedTimer>

#include <algorithm>
#include <climits>

using namespace dispatchertest;

namespace {

constexpr double EarliestFraction = 0.95; // Qt's coarse timers may be 5 % early

} // namespace

// Timers: when they fire, in which order, and what their slots may do.
class tst_DispatcherTimers : public DispatcherContract
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase_data() { addRows(); }
    void initTestCase() { prepare(); }
    void init() { begin(); }

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
};

void tst_DispatcherTimers::timerIsPreciseFromBelow_data()
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

void tst_DispatcherTimers::timerIsPreciseFromBelow()
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
            // Below 100 ms, Qt rounds coarse timers by some milliseconds more than 5 %.
            const double earliest = type == Qt::PreciseTimer || intervalMs <= 20
                    ? beat * intervalMs
                    : beat * intervalMs * EarliestFraction - 4;
            QVERIFY(double(elapsed.nsecsElapsed()) / 1e6 >= earliest);
        }
    });
}

void tst_DispatcherTimers::timersFireInOrder()
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
        QThread::msleep(31); // not for synchronising: all timers must be due in one turn
        turn();
        QCOMPARE(order, (QList<int>{first, second, third}));
        QVERIFY(dispatcher()->registeredTimers(&object).isEmpty());
    });
}

void tst_DispatcherTimers::zeroTimerStarvesNothing()
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

void tst_DispatcherTimers::timerKilledInOwnSlot()
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
        QThread::msleep(3); // not for synchronising: a timer that still ran would be due
        for (int i = 0; i < 5; ++i)
            turn();
        QCOMPARE(beats, 2);
    });
}

void tst_DispatcherTimers::timerRestartedInOwnSlot()
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

        // Also with a repeating timer: to a longer interval, and to zero.
        QTimer other;
        int turns = 0;
        connect(&other, &QTimer::timeout, &other, [&] { other.start(++turns == 1 ? 0 : 30); });
        other.start(1);
        QVERIFY(turnUntil([&] { return turns == 2; }));
        QCOMPARE(dispatcher()->registeredTimers(&other).size(), 1);
        QCOMPARE(dispatcher()->registeredTimers(&other).first().interval, 30);
    });
}

void tst_DispatcherTimers::timerDeletedInOwnSlot()
{
    inThread([] {
        auto *object = new TimerObject;
        bool fired = false;
        object->beat = [&](int) {
            fired = true;
            delete object;
        };
        object->startTimer(0);
        object->startTimer(0); // also due, but deleted with the object
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

void tst_DispatcherTimers::timerKilledByAnother()
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
        QThread::msleep(3); // not for synchronising: both timers must be due in one turn
        QVERIFY(turnUntil([&] { return !fired.isEmpty(); }));
        QCOMPARE(fired, QList<const QObject *>{&first});
    });
}

void tst_DispatcherTimers::timerIsNotReentered()
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

// A zero timer whose slot runs a nested loop does not keep that loop awake, either.
void tst_DispatcherTimers::zeroTimerIsNotReentered()
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

void tst_DispatcherTimers::missedBeatsAreSkipped()
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

void tst_DispatcherTimers::registeredTimers()
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

void tst_DispatcherTimers::remainingTime()
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
        QThread::msleep(2); // not for synchronising: the timer must be overdue
        QCOMPARE(dispatcher()->remainingTime(soon), 0);
        object.killTimer(soon);
        dispatcher()->unregisterTimer(precise);
        dispatcher()->unregisterTimer(veryCoarse);
    });
}

void tst_DispatcherTimers::longestInterval()
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

QTEST_GUILESS_MAIN(tst_DispatcherTimers)
#include "tst_dispatchertimers.moc"
