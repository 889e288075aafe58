// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "tcpinput/limits/heldbytes.h"

#include <QtCore/QCoreApplication>
#include <QtTest/QTest>

#include <memory>
#include <thread>
#include <vector>

class tst_HeldBytes : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init() { budget = std::make_shared<BufferBudget>(Limits()); }

    void bytesInTheBufferCount();
    void reservesBeforeItReceives();
    void reservesWithinTheConnection();
    void slowReaderKeepsWithinTheTotal();
    void latestRecordSharesTheBuffer();
    void consumedBytesOfARecordCount();
    void earlierRecordsCountByThemselves();
    void recordsOutliveTheConnection();
    void offersAreMergedWhileOneIsOnItsWay();
    void nobodyIsCalledAfterTheReceiverHasGone();
    void aPausedConnectionHearsOfEachRecord();
    void pausedConnectionsAreCounted();
    void budgetIsEmptyAfterAll();
    void recordsComeBackInAnyThread();

private:
    std::shared_ptr<BufferBudget> budget;
};

void tst_HeldBytes::bytesInTheBufferCount()
{
    HeldBytes held(budget);
    held.received(100);
    QCOMPARE(held.held(), 100);
    QCOMPARE(budget->held(), 100);
    held.consumed(30);
    QCOMPARE(held.held(), 70);
    QCOMPARE(held.unconsumed(), 70);
    QCOMPARE(held.consumedInAll(), 30U);
    QCOMPARE(budget->held(), 70);
}

void tst_HeldBytes::reservesBeforeItReceives()
{
    HeldBytes held(budget);
    QCOMPARE(held.reserve(100), 100);
    QCOMPARE(held.reserve(50), 50);
    QCOMPARE(budget->held(), 150);
    QCOMPARE(held.held(), 0);
    held.received(120);
    QCOMPARE(budget->held(), 120);

    QCOMPARE(held.reserve(100), 100);
    held.consumed(20); // in another thread
    QCOMPARE(budget->held(), 200);
    held.receivedNothing();
    QCOMPARE(budget->held(), 100);
}

void tst_HeldBytes::reservesWithinTheConnection()
{
    Limits limits;
    limits.connectionBuffer = 100;
    HeldBytes held(std::make_shared<BufferBudget>(limits));
    QCOMPARE(held.reserve(60), 60);
    QCOMPARE(held.reserve(60), 40);
    QCOMPARE(held.reserve(60), 0);
    held.received(110); // as at the end of the connection
    QCOMPARE(held.reserve(60), 0);
}

// The others fill the total after this one has reserved its bytes and before it reads them.
void tst_HeldBytes::slowReaderKeepsWithinTheTotal()
{
    constexpr qint64 Total = 1 << 20;
    Limits limits;
    limits.totalBuffer = Total;
    budget = std::make_shared<BufferBudget>(limits);
    HeldBytes slow(budget);
    const qint64 bytes = slow.reserve(Total);
    QVERIFY(bytes > 0);
    HeldBytes other(budget);
    while (const qint64 more = other.reserve(Total / 8))
        other.received(more);
    slow.received(bytes);
    QVERIFY2(budget->held() <= Total, qPrintable(QString::number(budget->held())));
}

void tst_HeldBytes::latestRecordSharesTheBuffer()
{
    HeldBytes held(budget);
    held.received(100);
    const quint64 record = held.lend(100);
    QCOMPARE(held.held(), 100);
    held.received(10);
    QCOMPARE(held.held(), 110);
    held.giveBack(record, 100);
    QCOMPARE(held.held(), 110);
}

void tst_HeldBytes::consumedBytesOfARecordCount()
{
    HeldBytes held(budget);
    held.received(100);
    const quint64 record = held.lend(100);
    held.consumed(100);
    QCOMPARE(held.held(), 100);
    held.received(5);
    QCOMPARE(held.held(), 105);
    held.consumed(5); // of those that came after the record
    QCOMPARE(held.held(), 100);
    held.giveBack(record, 100);
    QCOMPARE(held.held(), 0);
}

void tst_HeldBytes::earlierRecordsCountByThemselves()
{
    HeldBytes held(budget);
    held.received(100);
    const quint64 first = held.lend(100);
    held.received(50);
    const quint64 second = held.lend(150);
    QCOMPARE(held.held(), 250);
    held.giveBack(second, 150);
    QCOMPARE(held.held(), 250); // the buffer of 150, and the first record
    held.giveBack(first, 100);
    QCOMPARE(held.held(), 150);
}

void tst_HeldBytes::recordsOutliveTheConnection()
{
    auto held = std::make_shared<HeldBytes>(budget);
    held->received(100);
    const quint64 record = held->lend(100);
    const auto ofRecord = held;
    held->consumed(100); // as at the end of the connection
    held.reset();
    QCOMPARE(budget->held(), 100);
    ofRecord->giveBack(record, 100);
    QCOMPARE(budget->held(), 0);
}

void tst_HeldBytes::offersAreMergedWhileOneIsOnItsWay()
{
    HeldBytes held(budget);
    QObject receiver;
    int merged = 0;
    held.setReceiver(&receiver, {[&merged] { ++merged; }, [] {}});

    QVERIFY(held.beginHandOver());
    held.handedOver();
    QCoreApplication::processEvents();
    QCOMPARE(merged, 0); // there was nothing to merge

    QVERIFY(held.beginHandOver());
    QVERIFY(!held.beginHandOver());
    QVERIFY(!held.beginHandOver());
    held.handedOver();
    QCOMPARE(merged, 0); // queued
    QCoreApplication::processEvents();
    QCOMPARE(merged, 1);
    QVERIFY(held.beginHandOver());
    held.removeReceiver();
}

void tst_HeldBytes::nobodyIsCalledAfterTheReceiverHasGone()
{
    HeldBytes held(budget);
    int merged = 0;
    {
        QObject receiver;
        held.setReceiver(&receiver, {[&merged] { ++merged; }, [] {}});
        QVERIFY(held.beginHandOver());
        QVERIFY(!held.beginHandOver());
        held.removeReceiver();
    }
    held.handedOver();
    QCoreApplication::processEvents();
    QCOMPARE(merged, 0);
}

// Otherwise it would go on only when somebody looks at all that are paused.
void tst_HeldBytes::aPausedConnectionHearsOfEachRecord()
{
    HeldBytes held(budget);
    QObject receiver;
    int cameBack = 0;
    held.setReceiver(&receiver, {[] {}, [&cameBack] { ++cameBack; }});
    held.received(100);
    const quint64 first = held.lend(100);
    const quint64 second = held.lend(100);
    held.giveBack(first, 100);
    QCoreApplication::processEvents();
    QCOMPARE(cameBack, 0); // it goes on reading anyway

    held.setPaused(true);
    held.giveBack(second, 100);
    QCOMPARE(cameBack, 0); // queued
    QCoreApplication::processEvents();
    QCOMPARE(cameBack, 1);
    const quint64 third = held.lend(100);
    held.removeReceiver();
    held.giveBack(third, 100);
    QCoreApplication::processEvents();
    QCOMPARE(cameBack, 1);
    held.setPaused(false);
}

void tst_HeldBytes::pausedConnectionsAreCounted()
{
    HeldBytes one(budget);
    HeldBytes other(budget);
    one.setPaused(true);
    one.setPaused(true);
    other.setPaused(true);
    QCOMPARE(budget->paused.load(), 2);
    one.setPaused(false);
    one.setPaused(false);
    QCOMPARE(budget->paused.load(), 1);
    QVERIFY(other.isPaused() && !one.isPaused());
    other.setPaused(false);
}

void tst_HeldBytes::budgetIsEmptyAfterAll()
{
    {
        HeldBytes held(budget);
        held.received(100);
        held.lend(100);
    }
    QCOMPARE(budget->held(), 0);
}

void tst_HeldBytes::recordsComeBackInAnyThread()
{
    HeldBytes held(budget);
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i) {
        threads.emplace_back([&held] {
            for (int round = 0; round < 10000; ++round) {
                held.received(3);
                held.giveBack(held.lend(3), 3);
                held.consumed(3);
            }
        });
    }
    for (std::thread &thread : threads)
        thread.join();
    QCOMPARE(held.held(), 0);
    QCOMPARE(held.consumedInAll(), 120000U);
    QCOMPARE(budget->held(), 0);
}

QTEST_GUILESS_MAIN(tst_HeldBytes)
#include "tst_heldbytes.moc"
