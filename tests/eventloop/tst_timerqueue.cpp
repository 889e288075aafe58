// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "eventloop/timerqueue.h"

#include <QtCore/QList>
#include <QtCore/QObject>
#include <QtTest/QTest>

#include <algorithm>
#include <climits>
#include <random>

using namespace std::chrono_literals;

namespace {
using TimePoint = TimerQueue::TimePoint;
using Duration = TimerQueue::Duration;

// Any time is possible, because the queue reads no clock. This one lies on no grid.
const TimePoint Start = TimePoint(12345s + 678901us);

// Delivers the timers that are due at now. Returns their ids.
QList<int> idsDue(TimerQueue &queue, TimePoint now)
{
    QList<int> ids;
    queue.deliverDue(now, [&](int id, QObject *) { ids.append(id); });
    return ids;
}
} // namespace

class tst_TimerQueue : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void emptyQueue();
    void ordersByDeadlineThenByStart();
    void beatsUntilRemoved();
    void skipsMissedBeats();
    void grid_data();
    void grid();
    void gathersEqualTimeouts();
    void longIntervals();
    void zeroIntervalHasOneBeatPerCall();
    void removedInDelivery();
    void idReusedInDelivery();
    void nestedDelivery();
    void knowsTimersByObject();
    void agreesWithSimpleModel();
};

void tst_TimerQueue::emptyQueue()
{
    TimerQueue queue;
    QVERIFY(!queue.nextDeadline());
    QVERIFY(!queue.remaining(1, Start));
    QVERIFY(!queue.remove(1));
    QVERIFY(!queue.removeAll(this));
    QVERIFY(queue.timersOf(this).empty());
    QCOMPARE(idsDue(queue, Start), QList<int>());
}

void tst_TimerQueue::ordersByDeadlineThenByStart()
{
    TimerQueue queue;
    queue.add({1, 30ms, Qt::PreciseTimer, this}, Start);
    queue.add({2, 10ms, Qt::PreciseTimer, this}, Start);
    queue.add({4, 20ms, Qt::PreciseTimer, this}, Start);
    queue.add({3, 20ms, Qt::PreciseTimer, this}, Start);

    QVERIFY(*queue.nextDeadline() == Start + 10ms);
    QVERIFY(*queue.remaining(1, Start + 4ms) == 26ms);
    QVERIFY(*queue.remaining(1, Start + 31ms) == 0ms);
    QCOMPARE(idsDue(queue, Start + 10ms - 1ns), QList<int>());
    QCOMPARE(idsDue(queue, Start + 30ms), (QList<int>{2, 4, 3, 1}));
}

void tst_TimerQueue::beatsUntilRemoved()
{
    TimerQueue queue;
    queue.add({1, 10ms, Qt::PreciseTimer, this}, Start);
    QCOMPARE(idsDue(queue, Start + 11ms), QList<int>{1});
    QVERIFY(*queue.nextDeadline() == Start + 20ms); // a late beat does not delay the next one
    QCOMPARE(idsDue(queue, Start + 20ms), QList<int>{1});
    QVERIFY(queue.remove(1));
    QVERIFY(!queue.remove(1));
    QVERIFY(!queue.nextDeadline());
    QCOMPARE(idsDue(queue, Start + 1h), QList<int>());
}

void tst_TimerQueue::skipsMissedBeats()
{
    TimerQueue queue;
    queue.add({1, 10ms, Qt::PreciseTimer, this}, Start);
    QCOMPARE(idsDue(queue, Start + 95ms), QList<int>{1});
    QVERIFY(*queue.nextDeadline() == Start + 105ms);
}

void tst_TimerQueue::grid_data()
{
    QTest::addColumn<int>("type");
    QTest::addColumn<qint64>("intervalMs");
    QTest::addColumn<qint64>("stepMs"); // 0: exact

    const auto add = [](Qt::TimerType type, qint64 intervalMs, qint64 stepMs) {
        QTest::addRow("type %d, %lld ms", int(type), qlonglong(intervalMs))
                << int(type) << intervalMs << stepMs;
    };
    for (const qint64 intervalMs : {0, 1, 19, 2000, 60000, INT_MAX})
        add(Qt::PreciseTimer, intervalMs, 0);
    add(Qt::CoarseTimer, 0, 0);
    add(Qt::CoarseTimer, 19, 0);
    add(Qt::CoarseTimer, 20, 1);
    add(Qt::CoarseTimer, 99, 1);
    add(Qt::CoarseTimer, 100, 5);
    add(Qt::CoarseTimer, 250, 10);
    add(Qt::CoarseTimer, 1000, 50);
    add(Qt::CoarseTimer, 2000, 100);
    add(Qt::CoarseTimer, 9999, 100);
    add(Qt::CoarseTimer, 10000, 500);
    add(Qt::CoarseTimer, 60000, 1000);
    add(Qt::CoarseTimer, INT_MAX, 1000);
    add(Qt::VeryCoarseTimer, 0, 0);
    add(Qt::VeryCoarseTimer, 400, 1000);
    add(Qt::VeryCoarseTimer, 60000, 1000);
}

// A beat is never early, and less than a step late. This also holds after many beats.
void tst_TimerQueue::grid()
{
    QFETCH(int, type);
    QFETCH(qint64, intervalMs);
    QFETCH(qint64, stepMs);
    const Duration interval = std::chrono::milliseconds(intervalMs);
    const Duration step = std::chrono::milliseconds(stepMs);
    if (type == Qt::CoarseTimer)
        QVERIFY(step <= interval / 20);

    for (int i = 0; i < 100; ++i) {
        TimerQueue queue;
        const TimePoint start = Start + i * 12345678ns;
        queue.add({1, interval, Qt::TimerType(type), this}, start);

        const TimePoint first = *queue.nextDeadline();
        QVERIFY(first >= start + interval);
        QVERIFY(first - (start + interval) < std::max<Duration>(step, 1ns));
        if (stepMs > 0)
            QVERIFY(first.time_since_epoch() % step == 0ns);

        if (interval >= step) {
            for (int beat = 0; beat < 9; ++beat)
                QCOMPARE(idsDue(queue, *queue.nextDeadline()), QList<int>{1});
            QVERIFY(*queue.nextDeadline() >= start + 10 * interval);
            QVERIFY(*queue.nextDeadline() < start + 10 * interval + std::max<Duration>(step, 1ns));
        }
    }
}

void tst_TimerQueue::gathersEqualTimeouts()
{
    TimerQueue queue;
    for (int id = 1; id <= 10000; ++id)
        queue.add({id, 2s, Qt::CoarseTimer, this}, Start + id * 200us); // started over two seconds
    for (int id = 10001; id <= 20000; ++id)
        queue.add({id, 60s, Qt::CoarseTimer, this}, Start + (id - 10000) * 200us);

    int wakeUps = 0;
    int beats = 0;
    while (beats < 10000) {
        beats += queue.deliverDue(*queue.nextDeadline(),
                                  [&](int id, QObject *) { QVERIFY(queue.remove(id)); });
        ++wakeUps;
    }
    QVERIFY2(wakeUps <= 21, qPrintable(QString::number(wakeUps)));
    while (queue.nextDeadline()) {
        beats += queue.deliverDue(*queue.nextDeadline(),
                                  [&](int id, QObject *) { QVERIFY(queue.remove(id)); });
        ++wakeUps;
    }
    QCOMPARE(beats, 20000);
    QVERIFY2(wakeUps <= 24, qPrintable(QString::number(wakeUps)));
}

void tst_TimerQueue::longIntervals()
{
    TimerQueue queue;
    const Duration longest = std::chrono::milliseconds(INT_MAX);
    queue.add({1, longest, Qt::PreciseTimer, this}, Start);
    QVERIFY(*queue.remaining(1, Start) == longest);
    QCOMPARE(idsDue(queue, Start + longest), QList<int>{1});
    QVERIFY(*queue.nextDeadline() == Start + 2 * longest);
    queue.remove(1);

    int id = 1;
    for (const Qt::TimerType type : {Qt::PreciseTimer, Qt::CoarseTimer, Qt::VeryCoarseTimer}) {
        queue.add({++id, Duration::max(), type, this}, Start);
        QVERIFY(*queue.nextDeadline() == TimePoint::max());
    }
    QCOMPARE(idsDue(queue, Start + 10 * longest), QList<int>());
}

void tst_TimerQueue::zeroIntervalHasOneBeatPerCall()
{
    TimerQueue queue;
    queue.add({1, 0ms, Qt::CoarseTimer, this}, Start);
    queue.add({2, 0ms, Qt::PreciseTimer, this}, Start);
    queue.add({3, 5ms, Qt::PreciseTimer, this}, Start);

    QVERIFY(*queue.nextDeadline() <= Start);
    QList<int> ids;
    const auto note = [&](int id, QObject *) {
        if (ids.isEmpty())
            queue.add({4, 0ms, Qt::PreciseTimer, this}, Start); // first beat: in the next call
        ids.append(id);
    };
    QCOMPARE(queue.deliverDue(Start, note), 0); // zero timers do not count as beats
    QCOMPARE(ids, (QList<int>{1, 2}));
    QCOMPARE(idsDue(queue, Start), (QList<int>{1, 4, 2})); // each once
    QCOMPARE(idsDue(queue, Start + 5ms), (QList<int>{1, 4, 2, 3}));
    QCOMPARE(queue.deliverDue(Start + 10ms, [](int, QObject *) {}), 1);
}

void tst_TimerQueue::removedInDelivery()
{
    TimerQueue queue;
    for (int id = 1; id <= 4; ++id)
        queue.add({id, 10ms, Qt::PreciseTimer, this}, Start);

    QList<int> ids;
    queue.deliverDue(Start + 10ms, [&](int id, QObject *) {
        ids.append(id);
        QVERIFY(queue.remove(id));
        if (id == 1)
            QVERIFY(queue.remove(3)); // due, but not delivered yet
        if (id == 2)
            QVERIFY(queue.removeAll(this));
    });
    QCOMPARE(ids, (QList<int>{1, 2}));
    QVERIFY(!queue.nextDeadline());
}

// A timer that is restarted in its own slot usually gets the same id.
void tst_TimerQueue::idReusedInDelivery()
{
    TimerQueue queue;
    queue.add({1, 10ms, Qt::PreciseTimer, this}, Start);
    int beats = 0;
    queue.deliverDue(Start + 10ms, [&](int id, QObject *) {
        ++beats;
        QVERIFY(!queue.nextDeadline()); // none while the timer's delivery is on the stack
        QVERIFY(queue.remove(id));
        queue.add({id, 20ms, Qt::PreciseTimer, this}, Start + 10ms);
        QVERIFY(*queue.nextDeadline() == Start + 30ms); // the new timer can fire
        queue.deliverDue(Start + 30ms, [&](int, QObject *) { ++beats; });
    });
    QCOMPARE(beats, 2);
    QCOMPARE(idsDue(queue, Start + 50ms), QList<int>{1});
}

void tst_TimerQueue::nestedDelivery()
{
    TimerQueue queue;
    queue.add({1, 10ms, Qt::PreciseTimer, this}, Start);
    queue.add({2, 10ms, Qt::PreciseTimer, this}, Start);
    queue.add({3, 15ms, Qt::PreciseTimer, this}, Start);

    QList<int> outer;
    QList<int> inner;
    queue.deliverDue(Start + 10ms, [&](int id, QObject *) {
        outer.append(id);
        QVERIFY(*queue.nextDeadline() == Start + 10ms); // timer 2 is still due
        inner += idsDue(queue, Start + 21ms);
        QVERIFY(*queue.nextDeadline() == Start + 30ms);
    });
    QCOMPARE(outer, QList<int>{1}); // the inner call delivered timer 2
    QCOMPARE(inner, (QList<int>{2, 3})); // timer 1 is not re-entered; its second beat is skipped
    QCOMPARE(idsDue(queue, Start + 31ms), (QList<int>{3, 1, 2}));
}

void tst_TimerQueue::knowsTimersByObject()
{
    TimerQueue queue;
    QObject other;
    queue.add({7, 1500ms, Qt::VeryCoarseTimer, this}, Start);
    queue.add({3, 20s, Qt::CoarseTimer, &other}, Start);
    queue.add({5, 30ms, Qt::PreciseTimer, this}, Start);

    const std::vector<TimerQueue::Timer> timers = queue.timersOf(this);
    QCOMPARE(timers.size(), std::size_t(2));
    QCOMPARE(timers[0].id, 5);
    QCOMPARE(timers[1].id, 7);
    QVERIFY(timers[1].interval == 1500ms); // the original interval, not the rounded one
    QCOMPARE(timers[1].type, Qt::VeryCoarseTimer);
    QCOMPARE(timers[1].object, this);

    QVERIFY(queue.removeAll(this));
    QVERIFY(!queue.removeAll(this));
    QVERIFY(queue.timersOf(this).empty());
    QCOMPARE(queue.timersOf(&other).size(), std::size_t(1));
    QCOMPARE(idsDue(queue, Start + 1h), QList<int>{3});
}

// Compares random use with a simple model: a list that is searched each time.
void tst_TimerQueue::agreesWithSimpleModel()
{
    struct Model
    {
        int id;
        Duration interval;
        TimePoint due;
        quint64 order;
        const QObject *object;
    };
    std::mt19937 random(20240607); // fixed: a failure can be repeated
    const auto below = [&](int limit) { return int(random() % unsigned(limit)); };

    QObject objects[5];
    TimerQueue queue;
    QList<Model> model;
    TimePoint now = Start;
    quint64 order = 0;
    for (int step = 0; step < 20000; ++step) {
        const int id = 1 + below(60);
        const auto known = std::find_if(model.begin(), model.end(),
                                        [&](const Model &m) { return m.id == id; });
        switch (below(6)) {
        case 0:
        case 1: {
            if (known != model.end())
                break;
            const Duration interval = std::chrono::milliseconds(below(50));
            QObject *object = &objects[below(5)];
            queue.add({id, interval, Qt::PreciseTimer, object}, now);
            model.append({id, interval, now + interval, ++order, object});
            break;
        }
        case 2:
            QCOMPARE(queue.remove(id), known != model.end());
            if (known != model.end())
                model.erase(known);
            break;
        case 3:
            if (below(10) == 0) {
                const QObject *object = &objects[below(5)];
                const qsizetype removed =
                        model.removeIf([&](const Model &m) { return m.object == object; });
                QCOMPARE(queue.removeAll(object), removed > 0);
            }
            break;
        default: {
            now += std::chrono::microseconds(below(5000));
            std::stable_sort(model.begin(), model.end(), [](const Model &a, const Model &b) {
                return std::pair(a.due, a.order) < std::pair(b.due, b.order);
            });
            QList<int> expected;
            for (Model &timer : model) {
                if (timer.due > now)
                    break;
                expected.append(timer.id);
                timer.due += timer.interval;
                if (timer.due < now)
                    timer.due = now + timer.interval;
                timer.order = ++order;
            }
            QCOMPARE(idsDue(queue, now), expected);
        }
        }
        const auto next =
                std::min_element(model.begin(), model.end(),
                                 [](const Model &a, const Model &b) { return a.due < b.due; });
        QCOMPARE(queue.nextDeadline().has_value(), next != model.end());
        if (next != model.end())
            QVERIFY(*queue.nextDeadline() == next->due);
    }
}

QTEST_GUILESS_MAIN(tst_TimerQueue)
#include "tst_timerqueue.moc"
