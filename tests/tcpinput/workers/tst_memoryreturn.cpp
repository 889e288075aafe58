// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "tcpinput/workers/memoryreturn.h"

#include <QtTest/QtTest>

namespace {

constexpr qsizetype Least = MemoryReturn::LeastClosed;
constexpr int HangGuardMs = 60000;

} // namespace

// When memory is given back. A timer of 0 ms comes with the next pass of the event loop.
class tst_MemoryReturn : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init() { times = 0; }
    void whenHalfHasGone_data();
    void whenHalfHasGone();
    void onceForEachTime();
    void notIfTheyHaveComeBack();
    void notAtOnce();

private:
    void playTimers() { QTest::qWait(5); }

    int times = 0;
};

void tst_MemoryReturn::whenHalfHasGone_data()
{
    QTest::addColumn<qsizetype>("most");
    QTest::addColumn<qsizetype>("left");
    QTest::addColumn<int>("expected");
    QTest::newRow("none") << 10 * Least << 10 * Least << 0;
    QTest::newRow("less than half") << 10 * Least << 5 * Least + 1 << 0;
    QTest::newRow("half") << 10 * Least << 5 * Least << 1;
    QTest::newRow("all") << 10 * Least << qsizetype(0) << 1;
    QTest::newRow("all of a few") << Least - 1 << qsizetype(0) << 0;
    QTest::newRow("all of enough") << Least << qsizetype(0) << 1;
}

void tst_MemoryReturn::whenHalfHasGone()
{
    QFETCH(qsizetype, most);
    QFETCH(qsizetype, left);
    QFETCH(int, expected);
    MemoryReturn memory([this] { ++times; }, 0);
    for (qsizetype open = 1; open <= most; ++open)
        memory.count(open);
    for (qsizetype open = most; open-- > left;)
        memory.count(open);
    if (expected > 0)
        QTRY_COMPARE_WITH_TIMEOUT(times, expected, HangGuardMs);
    playTimers();
    QCOMPARE(times, expected);
}

void tst_MemoryReturn::onceForEachTime()
{
    MemoryReturn memory([this] { ++times; }, 0);
    for (int storm = 1; storm <= 3; ++storm) {
        memory.count(10 * Least);
        memory.count(1);
        QTRY_COMPARE_WITH_TIMEOUT(times, storm, HangGuardMs);
        for (int visit = 0; visit < 10; ++visit) { // a few that come and go
            memory.count(2);
            memory.count(1);
        }
        playTimers();
        QCOMPARE(times, storm);
    }
}

void tst_MemoryReturn::notIfTheyHaveComeBack()
{
    MemoryReturn memory([this] { ++times; }, 0);
    memory.count(10 * Least);
    memory.count(0);
    memory.count(9 * Least); // before the timer
    playTimers();
    QCOMPARE(times, 0);
    memory.count(0);
    QTRY_COMPARE_WITH_TIMEOUT(times, 1, HangGuardMs);
}

void tst_MemoryReturn::notAtOnce()
{
    MemoryReturn memory([this] { ++times; });
    memory.count(10 * Least);
    memory.count(0);
    playTimers();
    QCOMPARE(times, 0);
}

QTEST_GUILESS_MAIN(tst_MemoryReturn)
#include "tst_memoryreturn.moc"
