// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "tcpinput/limits/bufferbudget.h"

#include <QtTest/QTest>

#include <algorithm>
#include <limits>
#include <vector>

namespace {

constexpr qint64 Total = 1 << 20;

Limits totalOf(qint64 bytes)
{
    Limits limits;
    limits.totalBuffer = bytes;
    return limits;
}

// Each connection takes in all that it may, in turn, again and again. Returns what each holds then.
std::vector<qint64> greedy(BufferBudget &budget, std::size_t connections)
{
    std::vector<qint64> held(connections, 0);
    for (bool more = true; more;) {
        more = false;
        for (qint64 &each : held) {
            const qint64 room = budget.room(each);
            budget.add(room);
            each += room;
            more = more || room > 0;
        }
    }
    return held;
}

} // namespace

class tst_BufferBudget : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void withoutTotalThereIsRoom();
    void oneMayHoldAlmostAll();
    void manyFillTheTotalAndNoMore();
    void largestStopFirst();
    void nobodyStopsUntilAnEighthIsLeft();
    void reservesNoMoreThanThereIs();
    void exceededTotalHasNoRoom();
    void smallTotals();
};

void tst_BufferBudget::withoutTotalThereIsRoom()
{
    BufferBudget budget{Limits()};
    budget.add(std::numeric_limits<qint64>::max() / 2);
    QVERIFY(budget.room(1 << 30) > (qint64(1) << 60));
}

void tst_BufferBudget::oneMayHoldAlmostAll()
{
    BufferBudget budget(totalOf(Total));
    const qint64 held = greedy(budget, 1).front();
    QVERIFY2(held > Total * 88 / 100 && held < Total * 90 / 100, qPrintable(QString::number(held)));
}

void tst_BufferBudget::manyFillTheTotalAndNoMore()
{
    BufferBudget budget(totalOf(Total));
    const std::vector<qint64> held = greedy(budget, 10);
    QVERIFY(budget.held() <= Total);
    QVERIFY(budget.held() > Total * 95 / 100);
    QVERIFY(*std::min_element(held.begin(), held.end()) > 0);
}

void tst_BufferBudget::largestStopFirst()
{
    BufferBudget budget(totalOf(Total));
    const qint64 large = greedy(budget, 1).front();
    QCOMPARE(budget.room(large), 0);
    QVERIFY(budget.room(0) > 0);
    QVERIFY(budget.room(large / 2) > 0);
}

void tst_BufferBudget::nobodyStopsUntilAnEighthIsLeft()
{
    BufferBudget budget(totalOf(Total));
    budget.add(Total * 7 / 8 - 1);
    QVERIFY(budget.room(Total * 7 / 8 - 1) > 0);
    budget.add(Total / 8 / 8);
    QCOMPARE(budget.room(Total * 7 / 8 + Total / 64), 0);
}

void tst_BufferBudget::reservesNoMoreThanThereIs()
{
    BufferBudget budget(totalOf(Total));
    QCOMPARE(budget.reserve(0, 0), 0);
    QCOMPARE(budget.reserve(0, 1000), 1000);
    QCOMPARE(budget.held(), 1000);
    while (budget.reserve(0, Total) > 0)
        QVERIFY(budget.held() <= Total);
    QCOMPARE(budget.reserve(0, 1), 0);

    BufferBudget unlimited{Limits()};
    QCOMPARE(unlimited.reserve(Total, 1000), 1000);
    QCOMPARE(unlimited.held(), 1000);
}

void tst_BufferBudget::exceededTotalHasNoRoom()
{
    BufferBudget budget(totalOf(Total));
    budget.add(2 * Total);
    QCOMPARE(budget.room(0), 0);
    budget.add(-2 * Total);
    QCOMPARE(budget.held(), 0);
    QVERIFY(budget.room(0) > 0);
}

void tst_BufferBudget::smallTotals()
{
    for (qint64 total = 1; total < 100; ++total) {
        BufferBudget budget(totalOf(total));
        QVERIFY(budget.room(0) >= 1);
        greedy(budget, 3);
        QVERIFY(budget.held() <= total);
    }
}

QTEST_GUILESS_MAIN(tst_BufferBudget)
#include "tst_bufferbudget.moc"
