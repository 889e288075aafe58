// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "tcpinput/receive/warmblocks.h"

#include <QtCore/QSemaphore>
#include <QtTest/QtTest>

#include <thread>
#include <utility>

namespace {

constexpr qsizetype Size = 100000;

// Room that was used: its beginning was moved, and it has bytes.
QByteArray used(QByteArray block)
{
    block.resize(1000, 'x');
    block.remove(0, 500);
    return block;
}

} // namespace

// Which blocks are used again, and when they are freed.
class tst_WarmBlocks : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void newBlocksHaveRoom_data();
    void newBlocksHaveRoom();
    void aBlockIsUsedAgain();
    void notWhileSomebodyHasIt();
    void notIfItsSizeDoesNotFit_data();
    void notIfItsSizeDoesNotFit();
    void theLatestComesFirst();
    void keepsOnlySoMuch();
    void unusedOnesAreFreed();
    void theTimerEndsWithTheLastBlock();
    void foreignMemoryIsNotKept();
    void anotherThreadGivesUpTheLastCopy();
};

void tst_WarmBlocks::newBlocksHaveRoom_data()
{
    QTest::addColumn<qsizetype>("capacity");
    for (const qsizetype capacity :
         {65536, 65537, 81920, 100000, 131072, 131073, 5000000, 50000000})
        QTest::addRow("%lld", qint64(capacity)) << capacity;
}

void tst_WarmBlocks::newBlocksHaveRoom()
{
    QFETCH(qsizetype, capacity);
    WarmBlocks blocks;
    QByteArray block = blocks.take(capacity);
    QVERIFY(block.isEmpty());
    QVERIFY(block.isDetached());
    QVERIFY(block.capacity() >= capacity);
    QVERIFY2(block.capacity() < capacity + capacity / 4 + 1,
             qPrintable(QString::number(block.capacity())));
}

void tst_WarmBlocks::aBlockIsUsedAgain()
{
    WarmBlocks blocks;
    QByteArray block = blocks.take(Size);
    const char *const where = block.constData();
    const qsizetype capacity = block.capacity();
    blocks.giveBack(used(std::move(block)));
    QCOMPARE(blocks.bytes(), capacity);

    QByteArray again = blocks.take(Size - 1000);
    QCOMPARE(blocks.bytes(), 0);
    QCOMPARE(again.constData(), where);
    QVERIFY(again.isEmpty());
    QCOMPARE(*again.constData(), '\0');
    QVERIFY(again.isDetached());
    QCOMPARE(again.capacity(), capacity);
    again.append(QByteArray(capacity, 'y')); // all of it may be used
    QCOMPARE(again.constData(), where);
}

void tst_WarmBlocks::notWhileSomebodyHasIt()
{
    WarmBlocks blocks;
    QByteArray block = used(blocks.take(Size));
    QByteArray copy = block;
    const char *const where = block.data_ptr().data() - block.data_ptr().freeSpaceAtBegin();
    blocks.giveBack(std::move(block));
    block = blocks.take(Size);
    QVERIFY(block.constData() != where);
    QCOMPARE(copy, QByteArray(500, 'x'));

    copy.clear();
    block = blocks.take(Size);
    QCOMPARE(block.constData(), where);
}

void tst_WarmBlocks::notIfItsSizeDoesNotFit_data()
{
    QTest::addColumn<qsizetype>("wanted");
    QTest::addColumn<bool>("fits");
    QTest::newRow("larger") << Size * 2 << false;
    QTest::newRow("the same") << Size << true;
    QTest::newRow("a little smaller") << Size - Size / 5 << true;
    QTest::newRow("half of it") << WarmBlocks::LeastBytes << false;
}

void tst_WarmBlocks::notIfItsSizeDoesNotFit()
{
    QFETCH(qsizetype, wanted);
    QFETCH(bool, fits);
    WarmBlocks blocks;
    QByteArray block = blocks.take(Size);
    const char *const where = block.constData();
    blocks.giveBack(std::move(block));
    QCOMPARE(blocks.take(wanted).constData() == where, fits);

    blocks.giveBack(blocks.take(10 * Size));
    const qsizetype before = blocks.bytes();
    const QByteArray small = blocks.take(wanted); // a small offer must not hold that much
    QVERIFY(small.capacity() <= 2 * wanted);
    QVERIFY(blocks.bytes() >= before - 2 * Size);
}

// The most of it is still in the processor's cache.
void tst_WarmBlocks::theLatestComesFirst()
{
    WarmBlocks blocks;
    QByteArray first = blocks.take(Size);
    QByteArray second = blocks.take(Size);
    const char *const where = second.constData();
    blocks.giveBack(std::move(first));
    blocks.giveBack(std::move(second));
    QCOMPARE(blocks.take(Size).constData(), where);
}

void tst_WarmBlocks::keepsOnlySoMuch()
{
    constexpr qsizetype Large = WarmBlocks::MostBytes / 4;
    WarmBlocks blocks;
    std::vector<QByteArray> taken;
    for (int n = 0; n < 8; ++n)
        taken.push_back(blocks.take(Large));
    const char *const oldest = taken.front().constData();
    for (QByteArray &each : taken)
        blocks.giveBack(std::move(each));
    QCOMPARE(blocks.bytes(), WarmBlocks::MostBytes);
    for (int n = 0; n < 4; ++n) {
        taken.push_back(blocks.take(Large));
        QVERIFY(taken.back().constData() != oldest);
    }
    QCOMPARE(blocks.bytes(), 0);
    blocks.giveBack(blocks.take(WarmBlocks::MostBytes + 1));
    QCOMPARE(blocks.bytes(), 0);
}

void tst_WarmBlocks::unusedOnesAreFreed()
{
    WarmBlocks blocks;
    QByteArray first = blocks.take(Size);
    QByteArray second = blocks.take(Size);
    blocks.giveBack(std::move(first));
    blocks.look(); // ends the second in which it came
    const qsizetype one = blocks.bytes();
    QVERIFY(one > 0);
    blocks.giveBack(std::move(second));
    blocks.look();
    QCOMPARE(blocks.bytes(), one); // of the second one
    blocks.look();
    QCOMPARE(blocks.bytes(), 0);
}

// Without a timer, what comes back would stay for ever.
void tst_WarmBlocks::theTimerEndsWithTheLastBlock()
{
    WarmBlocks blocks;
    QByteArray block = blocks.take(Size);
    QByteArray late = blocks.take(Size);
    blocks.giveBack(std::move(block));
    QTRY_COMPARE_WITH_TIMEOUT(blocks.bytes(), 0, 60000);
    blocks.look();
    blocks.look();
    blocks.giveBack(std::move(late));
    QCOMPARE(blocks.bytes(), 0);

    blocks.giveBack(blocks.take(Size)); // and all begins anew
    QVERIFY(blocks.bytes() > 0);
    QTRY_COMPARE_WITH_TIMEOUT(blocks.bytes(), 0, 60000);
}

void tst_WarmBlocks::foreignMemoryIsNotKept()
{
    static const QByteArray Bytes(Size, 'x');
    WarmBlocks blocks;
    QByteArray block = blocks.take(Size);
    blocks.giveBack(QByteArray::fromRawData(Bytes.constData(), Bytes.size()));
    blocks.giveBack({});
    blocks.giveBack("small");
    QCOMPARE(blocks.bytes(), 0);
}

// A host's thread reads its copy to the end, and gives it up while this thread looks for a block.
void tst_WarmBlocks::anotherThreadGivesUpTheLastCopy()
{
    constexpr int Rounds = 2000;
    WarmBlocks blocks;
    QByteArray handed;
    QSemaphore given;
    QSemaphore seen;
    qsizetype wrong = 0;
    std::thread host([&] {
        for (int round = 0; round < Rounds; ++round) {
            given.acquire();
            QByteArray copy = std::exchange(handed, {});
            seen.release();
            wrong += copy.size() - copy.count(static_cast<char>(round));
        }
    });
    for (int round = 0; round < Rounds; ++round) {
        QByteArray block = blocks.take(Size);
        block.resize(Size);
        block.fill(static_cast<char>(round));
        handed = block;
        blocks.giveBack(std::move(block));
        given.release();
        seen.acquire();
    }
    host.join();
    QCOMPARE(wrong, 0);
    QVERIFY(blocks.bytes() > 0);
}

QTEST_GUILESS_MAIN(tst_WarmBlocks)
#include "tst_warmblocks.moc"
