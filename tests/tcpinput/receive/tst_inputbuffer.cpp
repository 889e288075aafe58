// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "tcpinput/receive/inputbuffer.h"
#include "tcpinput/receive/warmblocks.h"

#include <QtTest/QtTest>

#include <algorithm>
#include <cstring>
#include <random>
#include <utility>

namespace {

QByteArray pattern(qsizetype size)
{
    QByteArray bytes(size, Qt::Uninitialized);
    for (qsizetype n = 0; n < size; ++n)
        bytes[n] = static_cast<char>('a' + n % 23);
    return bytes;
}

// Whether a zero follows the bytes, also where their block goes on behind them.
bool isTerminated(const QByteArray &bytes)
{
    return *(bytes.constData() + bytes.size()) == '\0';
}

} // namespace

// The buffer's contents, and where they lie in memory.
class tst_InputBuffer : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void appends();
    void cuts_data();
    void cuts();
    void copiesStayAsTheyWere();
    void anyOrder_data();
    void anyOrder();

    void smallReadsTakeLittleMemory();
    void littleBehindALargeOfferTakesLittleMemory();
    void whatComesBehindAnOfferIsCopiedOnce();
    void restGoesInFront();
    void cutReachesIntoWhatCameBehind();
    void extends();
    void blocks_data();
    void blocks();
    void littleAfterMuchTakesLittleMemory_data();
    void littleAfterMuchTakesLittleMemory();
    void aLargeBacklogIsNotJoinedForEachRead();
    void foreignMemoryIsNotKept();

    void cutOfSharedLargeRestCopiesNothing();
    void cutOfSharedSmallRestCopiesIt();
    void cutOfUnsharedCopiesNothing();
    void memoryComesBack_data();
    void memoryComesBack();
    void everyCutIsTerminated();
};

void tst_InputBuffer::appends()
{
    InputBuffer buffer;
    QCOMPARE(buffer.size(), 0);
    QCOMPARE(buffer.copy(), QByteArray());
    buffer.append("abc");
    buffer.append("defg");
    buffer.append({});
    QCOMPARE(buffer.size(), 7);
    QCOMPARE(buffer.copy(), QByteArray("abcdefg"));
    buffer.clear();
    QCOMPARE(buffer.size(), 0);
    QCOMPARE(buffer.copy().capacity(), 0);
}

void tst_InputBuffer::cuts_data()
{
    QTest::addColumn<qsizetype>("len");
    QTest::addColumn<qsizetype>("cut");
    QTest::addColumn<QByteArray>("rest");

    QTest::newRow("least") << std::numeric_limits<qsizetype>::min() << qsizetype(0)
                           << QByteArray("0123456789");
    QTest::newRow("-1") << qsizetype(-1) << qsizetype(0) << QByteArray("0123456789");
    QTest::newRow("0") << qsizetype(0) << qsizetype(0) << QByteArray("0123456789");
    QTest::newRow("1") << qsizetype(1) << qsizetype(1) << QByteArray("123456789");
    QTest::newRow("9") << qsizetype(9) << qsizetype(9) << QByteArray("9");
    QTest::newRow("10") << qsizetype(10) << qsizetype(10) << QByteArray();
    QTest::newRow("11") << qsizetype(11) << qsizetype(10) << QByteArray();
    QTest::newRow("greatest") << std::numeric_limits<qsizetype>::max() << qsizetype(10)
                              << QByteArray();
}

void tst_InputBuffer::cuts()
{
    QFETCH(qsizetype, len);
    QFETCH(qsizetype, cut);
    QFETCH(QByteArray, rest);
    for (const bool shared : {false, true}) {
        InputBuffer buffer;
        buffer.append("0123456789");
        const QByteArray offered = shared ? buffer.copy() : QByteArray();
        QCOMPARE(buffer.cutFront(len), cut);
        QCOMPARE(buffer.size(), rest.size());
        QCOMPARE(buffer.copy(), rest);
        buffer.append("x");
        QCOMPARE(buffer.copy(), rest + 'x');
        QCOMPARE(offered, shared ? QByteArray("0123456789") : QByteArray());
    }
}

void tst_InputBuffer::copiesStayAsTheyWere()
{
    InputBuffer buffer;
    QList<QByteArray> copies;
    QList<QByteArray> expected;
    QByteArray model;
    for (int n = 0; n < 200; ++n) {
        const QByteArray bytes = pattern(n * 7 % 400 + 1);
        buffer.append(bytes);
        model += bytes;
        copies.append(buffer.copy());
        expected.append(QByteArray(model.constData(), model.size()));
        buffer.cutFront(n * 13 % 300);
        model.remove(0, n * 13 % 300);
        QCOMPARE(buffer.copy(), model);
    }
    QCOMPARE(copies, expected);
    for (const QByteArray &copy : std::as_const(copies))
        QVERIFY(isTerminated(copy));
}

void tst_InputBuffer::anyOrder_data()
{
    QTest::addColumn<bool>("warm");
    QTest::addColumn<qsizetype>("largest");
    for (const qsizetype largest : {300, 5000, 200000}) {
        QTest::addRow("up to %lld bytes", qint64(largest)) << false << largest;
        QTest::addRow("up to %lld bytes, blocks used again", qint64(largest)) << true << largest;
    }
}

// Reads of all kinds, cuts, and offers of which a host keeps the last few.
void tst_InputBuffer::anyOrder()
{
    QFETCH(bool, warm);
    QFETCH(qsizetype, largest);
    WarmBlocks blocks;
    InputBuffer buffer;
    if (warm)
        buffer.setBlocks(&blocks);
    QByteArray model;
    QList<std::pair<QByteArray, QByteArray>> offers; // and what they must be
    std::mt19937 random(1);
    const auto upTo = [&random](qsizetype most) {
        return std::uniform_int_distribution<qsizetype>(0, most)(random);
    };
    for (int n = 0; n < 3000; ++n) {
        const QByteArray bytes = pattern(1 + upTo(largest)).mid(upTo(20));
        switch (upTo(5)) {
        case 0:
            buffer.append(bytes);
            model += bytes;
            break;
        case 1: {
            const qsizetype unused = upTo(100);
            std::copy(bytes.begin(), bytes.end(), buffer.extend(bytes.size() + unused));
            buffer.chop(unused);
            model += bytes;
            break;
        }
        case 2: {
            QByteArray block = buffer.emptyBlock(bytes.size());
            block.append(bytes);
            buffer.appendBlock(std::move(block));
            model += bytes;
            break;
        }
        case 3: {
            const qsizetype cut = upTo(upTo(3) == 0 ? model.size() : 2 * largest);
            QCOMPARE(buffer.cutFront(cut), std::min(cut, model.size()));
            model.remove(0, cut);
            break;
        }
        default:
            offers.append({buffer.copy(), QByteArray(model.constData(), model.size())});
            QVERIFY(isTerminated(offers.last().first));
            if (offers.size() > 4)
                offers.remove(upTo(4));
        }
        QCOMPARE(buffer.size(), model.size());
        for (qsizetype each = n % 10; each < offers.size(); each += 10) // all of them, in ten steps
            QVERIFY(offers[each].first == offers[each].second);
    }
}

void tst_InputBuffer::smallReadsTakeLittleMemory()
{
    InputBuffer buffer;
    buffer.append(pattern(17));
    QVERIFY(buffer.copy().capacity() < 100);
    buffer.clear();
    const QByteArray offered = [&] {
        buffer.append(pattern(17));
        return buffer.copy();
    }();
    buffer.append(pattern(17)); // behind it
    buffer.cutFront(17);
    QVERIFY(buffer.copy().capacity() < 100);
}

// The new block has room in front for a remainder that never came.
void tst_InputBuffer::littleBehindALargeOfferTakesLittleMemory()
{
    InputBuffer buffer;
    buffer.append(pattern(5000));
    const QByteArray offered = buffer.copy();
    buffer.append("little");
    buffer.cutFront(5000);
    QVERIFY(buffer.copy().capacity() < 100);
    QCOMPARE(buffer.copy(), QByteArray("little"));
}

void tst_InputBuffer::whatComesBehindAnOfferIsCopiedOnce()
{
    InputBuffer buffer;
    buffer.append(pattern(100000) + "begin");
    const QByteArray offered = buffer.copy();
    buffer.append("ning" + pattern(200000));
    buffer.append(pattern(300000));
    QCOMPARE(buffer.size(), 600009);
    QCOMPARE(buffer.cutFront(100000), 100000);
    QCOMPARE(buffer.size(), 500009);
    buffer.append("!");
    QCOMPARE(buffer.copy(), "beginning" + pattern(200000) + pattern(300000) + '!');
    QCOMPARE(offered, pattern(100000) + "begin");
}

// The beginning of a message is put in front of the bytes that came behind it. These stay where
// they are.
void tst_InputBuffer::restGoesInFront()
{
    InputBuffer buffer;
    buffer.append(pattern(5000));
    const QByteArray offered = buffer.copy();
    buffer.append(pattern(100000));
    buffer.cutFront(4000);
    QVERIFY(buffer.copy().data_ptr().freeSpaceAtBegin() > 0); // of the 4,096 bytes left for it
    QCOMPARE(buffer.copy(), pattern(5000).mid(4000) + pattern(100000));
}

void tst_InputBuffer::cutReachesIntoWhatCameBehind()
{
    InputBuffer buffer;
    buffer.append("0123456789");
    const QByteArray offered = buffer.copy();
    buffer.append("abcdefghij");
    QCOMPARE(buffer.cutFront(13), 13);
    QCOMPARE(buffer.copy(), QByteArray("defghij"));
    buffer.append("klm");
    QCOMPARE(buffer.cutFront(100), 10);
    QCOMPARE(buffer.copy(), QByteArray());
    QCOMPARE(offered, QByteArray("0123456789"));
}

void tst_InputBuffer::extends()
{
    for (const bool shared : {false, true}) {
        InputBuffer buffer;
        buffer.append("0123456789");
        const QByteArray offered = shared ? buffer.copy() : QByteArray();
        buffer.append("ab");
        std::memcpy(buffer.extend(8), "cdef", 4);
        buffer.chop(4);
        QCOMPARE(buffer.size(), 16);
        QCOMPARE(buffer.copy(), QByteArray("0123456789abcdef"));
        QVERIFY(isTerminated(buffer.copy()));
        QCOMPARE(offered, shared ? QByteArray("0123456789") : QByteArray());
    }
}

void tst_InputBuffer::blocks_data()
{
    QTest::addColumn<qsizetype>("before");
    QTest::addColumn<bool>("shared");
    QTest::addColumn<bool>("copied");
    QTest::newRow("in an empty buffer") << qsizetype(0) << false << false;
    QTest::newRow("behind an offer that its headroom takes") << qsizetype(4096) << true << false;
    QTest::newRow("behind a larger offer") << qsizetype(4097) << true << true;
    QTest::newRow("behind what nobody holds") << qsizetype(10) << false << false;
    QTest::newRow("behind more that nobody holds") << qsizetype(4097) << false << true;
}

void tst_InputBuffer::blocks()
{
    QFETCH(qsizetype, before);
    QFETCH(bool, shared);
    QFETCH(bool, copied);
    InputBuffer buffer;
    buffer.append(pattern(before));
    const QByteArray offered = shared ? buffer.copy() : QByteArray();
    QByteArray block = buffer.emptyBlock(100000);
    block.append(pattern(100000));
    const char *const where = block.constData();

    buffer.appendBlock(std::move(block));

    QCOMPARE(buffer.size(), before + 100000);
    const QByteArray all = buffer.copy();
    QVERIFY(all == pattern(before) + pattern(100000));
    QVERIFY(isTerminated(all));
    QCOMPARE(all.constData() + before == where, !copied);
    QCOMPARE(offered, shared ? pattern(before) : QByteArray());
    QVERIFY(all.capacity() <= 2 * all.size());
}

// Thousands of connections may do that, and no limit counts what lies unused.
void tst_InputBuffer::littleAfterMuchTakesLittleMemory_data()
{
    QTest::addColumn<qsizetype>("much");
    QTest::addColumn<qsizetype>("little");
    for (const qsizetype much : {100000, 1000000, 5000000}) {
        for (const qsizetype little : {1, 10, 1000, 20000, 100000})
            QTest::addRow("%lld, %lld", qint64(much), qint64(little)) << much << little;
    }
}

void tst_InputBuffer::littleAfterMuchTakesLittleMemory()
{
    QFETCH(qsizetype, much);
    QFETCH(qsizetype, little);
    WarmBlocks blocks;
    const auto receive = [little](InputBuffer &buffer, bool asBlock) {
        if (!asBlock)
            return buffer.append(pattern(little));
        QByteArray block = buffer.emptyBlock(little);
        block.append(pattern(little));
        buffer.appendBlock(std::move(block));
    };
    for (const bool asBlock : {false, true}) {
        for (const bool behindRest : {false, true}) {
            InputBuffer buffer;
            buffer.setBlocks(&blocks);
            buffer.append(pattern(much));
            QByteArray offered = buffer.copy();
            buffer.cutFront(behindRest ? much - 10 : much);
            receive(buffer, asBlock);
            QVERIFY2(buffer.capacity() <= 16 * little + 16 * 1024,
                     qPrintable(QString::number(buffer.capacity())));
            offered = buffer.copy();
            QVERIFY(offered.capacity() <= 2 * offered.size() + 64);
        }
    }
}

// A message is cut, one is read, and the rest is offered; the host keeps nothing.
void tst_InputBuffer::aLargeBacklogIsNotJoinedForEachRead()
{
    constexpr qsizetype Message = 1000;
    constexpr int Turns = 2000;
    WarmBlocks blocks;
    for (const qsizetype backlog : {1 << 20, (1 << 20) - 300, 10 << 20}) {
        InputBuffer buffer;
        buffer.setBlocks(&blocks);
        buffer.append(pattern(backlog));
        int moved = 0;
        for (int turn = 0; turn < Turns; ++turn) {
            const char *const before = buffer.copy().constData();
            buffer.cutFront(Message);
            buffer.append(pattern(Message));
            moved += buffer.copy().constData() == before + Message ? 0 : 1;
        }
        QVERIFY2(moved < Turns / 20, qPrintable(QString::number(moved)));
    }
}

void tst_InputBuffer::foreignMemoryIsNotKept()
{
    static const char bytes[] = "for a while only";
    InputBuffer buffer;
    buffer.append(QByteArrayView(bytes, sizeof bytes - 1));
    QVERIFY(buffer.copy().constData() != bytes);
    QCOMPARE(buffer.copy(), QByteArray(bytes));
}

void tst_InputBuffer::cutOfSharedLargeRestCopiesNothing()
{
    InputBuffer buffer;
    buffer.append(pattern(100000));
    const QByteArray offered = buffer.copy();
    buffer.cutFront(100);
    QCOMPARE(buffer.copy().constData(), offered.constData() + 100);
    QCOMPARE(buffer.copy(), offered.mid(100));

    buffer.append("more"); // not into the memory of the record
    QCOMPARE(offered, pattern(100000));
    QVERIFY(isTerminated(offered));
    QCOMPARE(buffer.copy(), offered.mid(100) + "more");
}

void tst_InputBuffer::cutOfSharedSmallRestCopiesIt()
{
    InputBuffer buffer;
    buffer.append(pattern(100000));
    const QByteArray offered = buffer.copy();
    buffer.cutFront(99990);
    QVERIFY(buffer.copy().capacity() < 100);
    QCOMPARE(buffer.copy(), offered.mid(99990));
}

void tst_InputBuffer::cutOfUnsharedCopiesNothing()
{
    InputBuffer buffer;
    buffer.append(pattern(100000));
    const char *where = buffer.copy().constData();
    buffer.cutFront(100);
    QCOMPARE(buffer.copy().constData(), where + 100);
}

void tst_InputBuffer::memoryComesBack_data()
{
    QTest::addColumn<bool>("shared");
    QTest::newRow("each offer is held until the next") << true;
    QTest::newRow("offers are gone") << false;
}

// A backlog is consumed message by message. All copies together are no larger than the backlog,
// since each copy is half as large as the one before.
void tst_InputBuffer::memoryComesBack()
{
    QFETCH(bool, shared);
    constexpr qsizetype Message = 100;
    constexpr qsizetype Backlog = 1 << 20;
    InputBuffer buffer;
    buffer.append(pattern(Backlog));
    qsizetype copied = 0;
    while (buffer.size() > Message) {
        const QByteArray offered = buffer.copy();
        const char *where = offered.constData();
        if (!shared)
            const_cast<QByteArray &>(offered).clear();
        buffer.cutFront(Message);
        const QByteArray rest = buffer.copy();
        copied += rest.constData() == where + Message ? 0 : rest.size();
        QVERIFY(rest.capacity() <= 2 * rest.size() + 64);
    }
    QVERIFY2(copied <= Backlog, qPrintable(QString::number(copied)));
}

void tst_InputBuffer::everyCutIsTerminated()
{
    InputBuffer buffer;
    buffer.append(pattern(3000));
    while (buffer.size() > 0) {
        const QByteArray offered = buffer.copy();
        QVERIFY(isTerminated(offered));
        buffer.cutFront(7);
    }
}

QTEST_GUILESS_MAIN(tst_InputBuffer)
#include "tst_inputbuffer.moc"
