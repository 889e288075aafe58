// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "host/offertracker.h"

#include <QtCore/QQueue>
#include <QtCore/QRandomGenerator>
#include <QtTest/QtTest>

using namespace host;

namespace {

using Fit = OfferTracker::Fit;

constexpr qint64 Early = 0; // offers from before the discards may still wait
constexpr qint64 Late = 1000; // no offer from before the discards waits any more

//! The plugin's side of a connection. A random generator decides when it cuts.
class Worker
{
public:
    void receive(const QByteArray &bytes) { buffer += bytes; }
    void offer() { offers.enqueue(buffer); }
    void discard(qsizetype bytes) { cuts.enqueue(bytes); }
    void cut()
    {
        if (cuts.isEmpty())
            return;
        buffer.remove(0, cuts.dequeue());
        if (buffer.size() > 20)
            offer();
    }
    bool isIdle() const { return offers.isEmpty() && cuts.isEmpty(); }

    QByteArray buffer;
    QQueue<QByteArray> offers;
    QQueue<qsizetype> cuts;
};

//! The host's side of a connection. It takes lines, and follows the tracker's answers.
class Host
{
public:
    void take(Worker &worker)
    {
        if (worker.offers.isEmpty())
            return;
        const QByteArray offer = worker.offers.dequeue();
        if (offersBeforeMarker > 0 && --offersBeforeMarker == 0)
            reached = time;
        const Fit fit = tracker.accept(offer, reached);
        QVERIFY(fit != Fit::Foreign);
        if (fit == Fit::Unclear)
            worker.discard(0);
        else
            read(worker);
    }
    void read(Worker &worker)
    {
        const QByteArrayView unread = tracker.unread();
        const qsizetype size = unread.lastIndexOf('\n') + 1;
        if (size == 0)
            return;
        received += unread.first(size);
        tracker.consume(size, ++time);
        worker.discard(size);
        // The offers that wait now were made before this discard.
        offersBeforeMarker = worker.offers.size() + 1;
    }
    // Called when no offer and no discard is on its way.
    void settle(Worker &worker)
    {
        reached = time;
        if (tracker.isUnclear()) {
            tracker.decide();
            read(worker);
        }
        if (worker.isIdle())
            tracker.settle(time);
    }

    QByteArray received;
    OfferTracker tracker;
    qint64 time = 0; // of the last discard
    qint64 reached = 0;
    qsizetype offersBeforeMarker = 0;
};

// Lets both sides receive, cut and handle in random order. As in the plugin, offers are made at the
// first read, after cuts, and at the end.
void transmit(const QByteArrayList &messages, QRandomGenerator &random, Worker &worker, Host &host)
{
    for (const QByteArray &message : messages) {
        const int split = random.bounded(static_cast<int>(message.size()) + 1);
        for (const QByteArray &piece : {message.left(split), message.mid(split)}) {
            const bool isFirst = worker.buffer.isEmpty() && worker.isIdle();
            worker.receive(piece);
            if (isFirst && !piece.isEmpty())
                worker.offer();
            for (int steps = random.bounded(4); steps > 0; --steps) {
                if (random.bounded(2) == 0)
                    worker.cut();
                else
                    host.take(worker);
            }
            if (worker.isIdle())
                host.settle(worker);
        }
    }
    worker.offer();
    while (!worker.isIdle() || host.tracker.isUnclear()) {
        host.take(worker);
        worker.cut();
        if (worker.isIdle())
            host.settle(worker);
    }
}

} // namespace

class tst_OfferTracker : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void offersWithoutConsumption();
    void repeat();
    void repeatWithMore();
    void repeatFromALaterCut();
    void cutBeforeTheNextOffer();
    void sameBytesAgainAreUnclear();
    void unclearThenNothing();
    void unclearThenAnother();
    void unclearThenCut();
    void unclearAndLonger_data();
    void unclearAndLonger();
    void unclearIsNotTaken();
    void settledBytesAreNew();
    void settlesInOrder();
    void settlingKeepsTheRest();
    void otherConnection();
    void shorterThanTheRest();
    void doesNotKeepWhatIsSettled();
    void anyOrder_data();
    void anyOrder();
    void anyOrderWithEqualMessages_data();
    void anyOrderWithEqualMessages();
};

#define COMPARE_UNREAD(tracker, expected)                                                          \
    QCOMPARE((tracker).unread().toByteArray(), QByteArray(expected))

void tst_OfferTracker::offersWithoutConsumption()
{
    OfferTracker tracker;
    COMPARE_UNREAD(tracker, "");
    for (const char *offer : {"a", "ab", "ab", "abc"}) {
        QCOMPARE(tracker.accept(offer, Late), Fit::Fits);
        COMPARE_UNREAD(tracker, offer);
    }
    QVERIFY(tracker.isSettled());
}

// The device sends and closes at once. The host handles both offers after that.
void tst_OfferTracker::repeat()
{
    OfferTracker tracker;
    QCOMPARE(tracker.accept("hello\n", Early), Fit::Fits);
    tracker.consume(6, 1);
    QVERIFY(!tracker.isSettled());
    for (int n = 0; n < 2; ++n) {
        QCOMPARE(tracker.accept("hello\n", Early), Fit::Fits);
        COMPARE_UNREAD(tracker, "");
    }
}

void tst_OfferTracker::repeatWithMore()
{
    OfferTracker tracker;
    QCOMPARE(tracker.accept("a\nb", Early), Fit::Fits);
    tracker.consume(2, 1);
    COMPARE_UNREAD(tracker, "b");
    // Only a repeat can begin with these bytes, even if no older offer waits.
    QCOMPARE(tracker.accept("a\nb\nc", Late), Fit::Fits);
    COMPARE_UNREAD(tracker, "b\nc");
    tracker.consume(2, 2);
    QCOMPARE(tracker.accept("a\nb\nc\n", Late), Fit::Fits);
    COMPARE_UNREAD(tracker, "c\n");
}

// Two discards were on the way. The offer was made between their cuts.
void tst_OfferTracker::repeatFromALaterCut()
{
    OfferTracker tracker;
    QCOMPARE(tracker.accept("a\n1", Early), Fit::Fits);
    tracker.consume(2, 1);
    QCOMPARE(tracker.accept("a\n1\n2", Late), Fit::Fits);
    tracker.consume(2, 2);
    QCOMPARE(tracker.accept("1\n2\n3", Late), Fit::Fits);
    COMPARE_UNREAD(tracker, "2\n3");
    tracker.consume(2, 3);
    QCOMPARE(tracker.accept("2\n3\n", Late), Fit::Fits);
    COMPARE_UNREAD(tracker, "3\n");
}

void tst_OfferTracker::cutBeforeTheNextOffer()
{
    OfferTracker tracker;
    QCOMPARE(tracker.accept("a\n", Early), Fit::Fits);
    tracker.consume(2, 1);
    QCOMPARE(tracker.accept("b\n", Late), Fit::Fits);
    COMPARE_UNREAD(tracker, "b\n");
    // The offer before has shown that the first cut is carried out.
    QCOMPARE(tracker.accept("a\n", Late), Fit::Foreign);
}

void tst_OfferTracker::sameBytesAgainAreUnclear()
{
    OfferTracker tracker;
    QCOMPARE(tracker.accept("a\n", Early), Fit::Fits);
    tracker.consume(2, 1);
    QCOMPARE(tracker.accept("a\n", 1), Fit::Unclear);
    QVERIFY(tracker.isUnclear());
    QVERIFY(!tracker.isSettled());
}

void tst_OfferTracker::unclearThenNothing()
{
    OfferTracker tracker;
    QCOMPARE(tracker.accept("a\n", Early), Fit::Fits);
    tracker.consume(2, 1);
    QCOMPARE(tracker.accept("a\nb\n", Late), Fit::Unclear);
    tracker.decide();
    QVERIFY(!tracker.isUnclear());
    COMPARE_UNREAD(tracker, "b\n");
}

// The second offer is the answer to the host's request. So all cuts are carried out.
void tst_OfferTracker::unclearThenAnother()
{
    OfferTracker tracker;
    QCOMPARE(tracker.accept("a\n", Early), Fit::Fits);
    tracker.consume(2, 1);
    QCOMPARE(tracker.accept("a\nb\n", Late), Fit::Unclear);
    QCOMPARE(tracker.accept("a\nb\nc\n", Late), Fit::Fits);
    QVERIFY(!tracker.isUnclear());
    COMPARE_UNREAD(tracker, "a\nb\nc\n");
}

void tst_OfferTracker::unclearThenCut()
{
    OfferTracker tracker;
    QCOMPARE(tracker.accept("a\n", Early), Fit::Fits);
    tracker.consume(2, 1);
    QCOMPARE(tracker.accept("a\nb\n", Late), Fit::Unclear);
    QCOMPARE(tracker.accept("b\n", Late), Fit::Fits);
    QVERIFY(!tracker.isUnclear());
    COMPARE_UNREAD(tracker, "b\n");
}

void tst_OfferTracker::unclearAndLonger_data()
{
    QTest::addColumn<QByteArray>("first");
    QTest::addColumn<QByteArray>("second");
    QTest::addColumn<QByteArray>("unread");

    QTest::newRow("same") << QByteArray("a\n") << QByteArray("a\n") << QByteArray();
    QTest::newRow("same, with rest")
            << QByteArray("ab\na") << QByteArray("ab\na") << QByteArray("a");
    QTest::newRow("goes on differently")
            << QByteArray("a\n") << QByteArray("a\nb\n") << QByteArray("b\n");
    QTest::newRow("repeats itself")
            << QByteArray("a\n") << QByteArray("a\na\na\n") << QByteArray("a\na\na\n");
    QTest::newRow("repeats itself, with rest")
            << QByteArray("ab\na") << QByteArray("ab\nab\na") << QByteArray("ab\nab\na");
}

void tst_OfferTracker::unclearAndLonger()
{
    QFETCH(QByteArray, first);
    OfferTracker tracker;
    QCOMPARE(tracker.accept(first, Early), Fit::Fits);
    tracker.consume(first.indexOf('\n') + 1, 1);
    QFETCH(QByteArray, second);
    QCOMPARE(tracker.accept(second, Late), Fit::Unclear);
    tracker.decide();
    QTEST(tracker.unread().toByteArray(), "unread");
}

void tst_OfferTracker::unclearIsNotTaken()
{
    OfferTracker tracker;
    QCOMPARE(tracker.accept("a\nb", Early), Fit::Fits);
    tracker.consume(2, 1);
    QCOMPARE(tracker.accept("a\nba\nb", Early), Fit::Fits);
    COMPARE_UNREAD(tracker, "ba\nb");
    tracker.consume(4, 2);
    COMPARE_UNREAD(tracker, "");
    QCOMPARE(tracker.accept("a\nba\nb", Late), Fit::Unclear);
    COMPARE_UNREAD(tracker, "");
}

void tst_OfferTracker::settledBytesAreNew()
{
    OfferTracker tracker;
    QCOMPARE(tracker.accept("a\n", Early), Fit::Fits);
    tracker.consume(2, 100);
    tracker.settle(99);
    QVERIFY(!tracker.isSettled());
    tracker.settle(100);
    QVERIFY(tracker.isSettled());
    QCOMPARE(tracker.accept("a\n", Late), Fit::Fits);
    COMPARE_UNREAD(tracker, "a\n");
}

void tst_OfferTracker::settlesInOrder()
{
    OfferTracker tracker;
    QCOMPARE(tracker.accept("a\n", Early), Fit::Fits);
    tracker.consume(2, 100);
    QCOMPARE(tracker.accept("a\nb\n", Early), Fit::Fits);
    tracker.consume(2, 200);
    tracker.settle(150);
    QCOMPARE(tracker.accept("b\n", 150), Fit::Fits);
    COMPARE_UNREAD(tracker, "");
    QCOMPARE(tracker.accept("a\nb\n", Late), Fit::Fits);
    COMPARE_UNREAD(tracker, "a\nb\n");
}

void tst_OfferTracker::settlingKeepsTheRest()
{
    OfferTracker tracker;
    QCOMPARE(tracker.accept("a\nbc", Early), Fit::Fits);
    tracker.consume(2, 1);
    tracker.settle(1);
    COMPARE_UNREAD(tracker, "bc");
    QCOMPARE(tracker.accept("bcd\n", Late), Fit::Fits);
    tracker.consume(4, 2);
    QCOMPARE(tracker.accept("bcd\ne\n", 1), Fit::Fits);
    COMPARE_UNREAD(tracker, "e\n");
}

void tst_OfferTracker::otherConnection()
{
    OfferTracker tracker;
    QCOMPARE(tracker.accept("a\nbc", Early), Fit::Fits);
    tracker.consume(2, 1);
    QCOMPARE(tracker.accept("x\n", Late), Fit::Foreign);
    COMPARE_UNREAD(tracker, "bc");
    tracker.clear();
    QCOMPARE(tracker.accept("x\n", Late), Fit::Fits);
    COMPARE_UNREAD(tracker, "x\n");
}

// An offer never ends at an earlier position than the offer before it.
void tst_OfferTracker::shorterThanTheRest()
{
    OfferTracker tracker;
    QCOMPARE(tracker.accept("abc", Early), Fit::Fits);
    QCOMPARE(tracker.accept("ab", Late), Fit::Foreign);
}

void tst_OfferTracker::doesNotKeepWhatIsSettled()
{
    const QByteArray offer(100000, 'x');
    OfferTracker tracker;
    QCOMPARE(tracker.accept(offer, Early), Fit::Fits);
    tracker.consume(99999, 1);
    QVERIFY(!offer.isDetached());
    tracker.settle(1);
    QVERIFY(offer.isDetached());
}

void tst_OfferTracker::anyOrder_data()
{
    QTest::addColumn<quint32>("seed");
    for (quint32 seed = 1; seed <= 300; ++seed)
        QTest::addRow("seed %u", seed) << seed;
}

void tst_OfferTracker::anyOrder()
{
    QFETCH(quint32, seed);
    QRandomGenerator random(seed);
    QByteArrayList messages;
    for (int n = 0; n < 200; ++n)
        messages += QByteArray::number(n) + '\n';

    Worker worker;
    Host host;
    transmit(messages, random, worker, host);
    QCOMPARE(host.received, messages.join());
    QCOMPARE(worker.buffer, QByteArray());
}

void tst_OfferTracker::anyOrderWithEqualMessages_data()
{
    anyOrder_data();
}

// The messages are longer than the remainder that the plugin does not offer. So each request gets
// an offer as its answer.
void tst_OfferTracker::anyOrderWithEqualMessages()
{
    QFETCH(quint32, seed);
    QRandomGenerator random(seed);
    const QByteArrayList messages(200, "a message longer than 20 bytes\n");

    Worker worker;
    Host host;
    transmit(messages, random, worker, host);
    QCOMPARE(host.received, messages.join());
    QCOMPARE(worker.buffer, QByteArray());
}

QTEST_GUILESS_MAIN(tst_OfferTracker)
#include "tst_offertracker.moc"
