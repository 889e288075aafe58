// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "tests/kit/movableclock.h"
#include "tests/tcpinput/clienttest.h"
#include "tests/tcpinput/connectedclient.h"
#include "tests/tcpinput/readingtest.h"

#include <QtCore/QCoreApplication>
#include <QtCore/QThread>
#include <QtTest/QSignalSpy>
#include <QtTest/QTest>

#include <limits>

using namespace clienttest;
using namespace readingtest;

// When a client offers what it has, and what a cut leaves.
class tst_ClientOffers : public ClientTest
{
    Q_OBJECT

private Q_SLOTS:
    void init() { begin(); }
    void cleanup() { end(); }

    void offerInterval_data();
    void offerInterval();
    void clockSetBack_data();
    void clockSetBack();
    void intervalBeginsBeforeTheOfferOnTheReadPath();
    void sizeLine_data();
    void sizeLine();

    void cutInbuf_data();
    void cutInbuf();
    void cutDoesNotKeepTheMemory();
    void cutOfEverythingFreesTheMemory();
    void cutOfNothingOffersAgain();
    void cutHasNoTimeCondition();
    void intervalBeginsAfterTheOfferOnTheCutPath();
    void discardIsQueued();
    void discardFromAnotherThread();
    void offersKeepTheirBytes();
};

void tst_ClientOffers::offerInterval_data()
{
    QTest::addColumn<int>("elapsedMs");
    QTest::addColumn<bool>("offered");
    QTest::newRow("at once") << 0 << false;
    QTest::newRow("100 ms") << 100 << false;
    QTest::newRow("200 ms") << 200 << false;
    QTest::newRow("201 ms") << 201 << true;
    QTest::newRow("an hour") << int(HourMs) << true;
}

void tst_ClientOffers::offerInterval()
{
    QFETCH(int, elapsedMs);
    QFETCH(bool, offered);
    ConnectedClient connection;
    QVERIFY(connection.deliver("abc"));
    QCOMPARE(connection.takeOffers(), QList<QByteArray>({"abc"}));
    EventLog::take();

    MovableClock::advance(elapsedMs);
    QVERIFY(connection.deliver("def"));

    if (offered) {
        QCOMPARE(connection.takeOffers(), QList<QByteArray>({"abcdef"}));
        QCOMPARE(EventLog::take(), QStringList(offerLine(6, connection)));
        return;
    }
    QCOMPARE(connection.takeOffers(), QList<QByteArray>());
    QCOMPARE(EventLog::take(), QStringList());

    // A read that is not offered does not begin a new interval.
    MovableClock::advance(201 - elapsedMs);
    QVERIFY(connection.deliver("ghi"));
    QCOMPARE(connection.takeOffers(), QList<QByteArray>({"abcdefghi"}));
}

void tst_ClientOffers::clockSetBack_data()
{
    QTest::addColumn<qint64>("backMs");
    QTest::newRow("1 ms") << qint64(1);
    QTest::newRow("100 ms") << qint64(100);
    QTest::newRow("an hour") << HourMs;
    QTest::newRow("ten years") << HourMs * 24 * 3650;
}

// Neither a read nor a kick waits for the clock to catch up.
void tst_ClientOffers::clockSetBack()
{
    QFETCH(qint64, backMs);
    ConnectedClient connection;
    QVERIFY(connection.deliver(bytes(81)));
    connection.takeOffers();

    MovableClock::advance(-backMs);
    QVERIFY(connection.deliver("!"));
    QCOMPARE(connection.takeOffers(), QList<QByteArray>({bytes(81) + '!'}));

    MovableClock::advance(-backMs);
    EventLog::take();
    check(*connection.client);
    QCOMPARE(takeKick(), kickLines(82) + QStringList(offerLine(82, connection)));

    // From there on the intervals count as before.
    MovableClock::advance(200);
    QVERIFY(connection.deliver("!"));
    check(*connection.client);
    QCOMPARE(EventLog::take(), QStringList());
}

void tst_ClientOffers::intervalBeginsBeforeTheOfferOnTheReadPath()
{
    ConnectedClient connection;
    connect(connection.client.get(), &TcpClient2::readyRead, this,
            [] { MovableClock::advance(150); }); // a slow receiver
    QVERIFY(connection.deliver("abc"));
    connection.takeOffers();

    MovableClock::advance(51);
    QVERIFY(connection.deliver("def"));

    QCOMPARE(connection.takeOffers(), QList<QByteArray>({"abcdef"}));
}

void tst_ClientOffers::sizeLine_data()
{
    QTest::addColumn<int>("size");
    QTest::addColumn<bool>("logged");
    QTest::newRow("1") << 1 << false;
    QTest::newRow("1000") << 1000 << false;
    QTest::newRow("1001") << 1001 << true;
    QTest::newRow("20000") << 20000 << true;
}

void tst_ClientOffers::sizeLine()
{
    QFETCH(int, size);
    QFETCH(bool, logged);
    ConnectedClient connection;
    EventLog::take();
    // The first read derives the id and makes an offer. The second read makes none, but logs its
    // line.
    for (bool first : {true, false}) {
        QVERIFY(connection.deliver(bytes(size)));
        QStringList expected;
        if (logged)
            expected += QStringLiteral("I: TcpClient2 (%1): msgsize = %2")
                                .arg(connection.derivedId())
                                .arg(size);
        if (first)
            expected += offerLine(size, connection);
        QCOMPARE(EventLog::take().mid(first ? 2 : 0), expected);
    }
}

void tst_ClientOffers::cutInbuf_data()
{
    QTest::addColumn<int>("size");
    QTest::addColumn<int>("len");
    QTest::addColumn<int>("remaining");
    QTest::addColumn<bool>("shared");
    const auto row = [](int size, int len, int remaining) {
        QTest::addRow("%d of %d", len, size) << size << len << remaining << false;
        QTest::addRow("%d of %d, shared", len, size) << size << len << remaining << true;
    };
    row(30, 10, 20);
    row(30, 9, 21);
    row(30, 30, 0);
    row(30, 31, 0);
    row(30, std::numeric_limits<int>::max(), 0);
    row(30, 0, 30);
    row(30, -1, 30);
    row(30, std::numeric_limits<int>::min(), 30);
    row(20, 0, 20);
    row(21, 0, 21);
    row(20, -7, 20);
    row(1, 1, 0);
    row(90, 10, 80);
    row(1000, 100, 900);
}

void tst_ClientOffers::cutInbuf()
{
    QFETCH(int, size);
    QFETCH(int, len);
    QFETCH(int, remaining);
    QFETCH(bool, shared); // with an offer that somebody still holds
    ConnectedClient connection;
    QVERIFY(connection.deliver(bytes(size)));
    QList<QByteArray> held = connection.takeOffers();
    if (!shared)
        held.clear();
    EventLog::take();

    connection.client->cutInbuf(len);

    const QByteArray rest = bytes(size).right(remaining);
    if (remaining > 20) {
        QCOMPARE(EventLog::take(),
                 QStringList({QStringLiteral("D: TcpClient: inbuf still %1 bytes, triggering")
                                      .arg(remaining),
                              offerLine(remaining, connection)}));
        QCOMPARE(connection.takeOffers(), QList<QByteArray>({rest}));
    } else {
        QCOMPARE(EventLog::take(), QStringList());
    }
    // The next offer begins with what is left.
    MovableClock::advance(201);
    QVERIFY(connection.deliver("!"));
    QCOMPARE(connection.takeOffers(), QList<QByteArray>({rest + '!'}));
    QVERIFY(connection.noLockHeld);
    if (shared)
        QCOMPARE(held, QList<QByteArray>({bytes(size)}));
}

// The receiver still holds a large offer when all but a little of it is cut.
void tst_ClientOffers::cutDoesNotKeepTheMemory()
{
    ConnectedClient connection;
    QVERIFY(connection.deliver(bytes(60000)));
    const QList<QByteArray> held = connection.takeOffers();

    connection.client->cutInbuf(60000 - 21);

    const QList<QByteArray> rest = connection.takeOffers();
    QCOMPARE(rest, QList<QByteArray>({bytes(60000).right(21)}));
    QVERIFY2(rest[0].capacity() < 1000, QByteArray::number(rest[0].capacity()));
}

void tst_ClientOffers::cutOfEverythingFreesTheMemory()
{
    ConnectedClient connection;
    QVERIFY(connection.deliver(bytes(60000)));
    connection.takeOffers();
    connection.client->cutInbuf(60000);

    MovableClock::advance(201);
    QVERIFY(connection.deliver("abc"));
    const QList<QByteArray> next = connection.takeOffers();
    QCOMPARE(next, QList<QByteArray>({"abc"}));
    // Qt reads into blocks of 16 KiB at least.
    QVERIFY2(next[0].capacity() < 20000, QByteArray::number(next[0].capacity()));
}

void tst_ClientOffers::cutOfNothingOffersAgain()
{
    ConnectedClient connection;
    QVERIFY(connection.deliver(bytes(21)));
    connection.takeOffers();

    for (int times = 0; times < 3; ++times) {
        connection.client->discard(0);
        QCoreApplication::sendPostedEvents();
        QCOMPARE(connection.takeOffers(), QList<QByteArray>({bytes(21)}));
    }
}

// Two reads come within the interval. The cut of the first offer brings the second offer.
void tst_ClientOffers::cutHasNoTimeCondition()
{
    ConnectedClient connection;
    QVERIFY(connection.deliver("abc"));
    MovableClock::advance(100);
    QVERIFY(connection.deliver(bytes(21)));
    QCOMPARE(connection.takeOffers(), QList<QByteArray>({"abc"}));

    connection.client->cutInbuf(3);
    QCOMPARE(connection.takeOffers(), QList<QByteArray>({bytes(21)}));
}

void tst_ClientOffers::intervalBeginsAfterTheOfferOnTheCutPath()
{
    ConnectedClient connection;
    QVERIFY(connection.deliver(bytes(31)));
    connect(
            connection.client.get(), &TcpClient2::readyRead, this,
            [] { MovableClock::advance(150); }, Qt::SingleShotConnection);
    MovableClock::advance(1000);
    connection.client->cutInbuf(10);
    connection.takeOffers();

    MovableClock::advance(200);
    QVERIFY(connection.deliver("!"));
    QCOMPARE(connection.takeOffers(), QList<QByteArray>());

    MovableClock::advance(1);
    QVERIFY(connection.deliver("!"));
    QCOMPARE(connection.takeOffers(), QList<QByteArray>({bytes(31).mid(10) + "!!"}));
}

void tst_ClientOffers::discardIsQueued()
{
    ConnectedClient connection;
    QSignalSpy cut(connection.client.get(), &TcpClient2::cut);
    QVERIFY(connection.deliver(bytes(25)));
    connection.takeOffers();

    connection.client->discard(3);
    QCOMPARE(cut, QList<QVariantList>({{3}}));
    connection.client->emitData();
    QCOMPARE(connection.takeOffers(), QList<QByteArray>({bytes(25)}));

    QCoreApplication::sendPostedEvents();
    QCOMPARE(connection.takeOffers(), QList<QByteArray>({bytes(25).mid(3)}));
    QCOMPARE(cut.size(), 1);
}

void tst_ClientOffers::discardFromAnotherThread()
{
    ConnectedClient connection;
    QVERIFY(connection.deliver(bytes(25)));
    connection.takeOffers();
    QThread *cutIn = nullptr;
    connect(
            connection.client.get(), &TcpClient2::readyRead, connection.client.get(),
            [&] { cutIn = QThread::currentThread(); }, Qt::DirectConnection);

    const std::unique_ptr<QThread> other(QThread::create([&] { connection.client->discard(4); }));
    other->start();
    QVERIFY(other->wait());
    QCOMPARE(connection.takeOffers(), QList<QByteArray>());

    QCoreApplication::sendPostedEvents();
    QCOMPARE(connection.takeOffers(), QList<QByteArray>({bytes(25).mid(4)}));
    QCOMPARE(cutIn, QThread::currentThread());
}

void tst_ClientOffers::offersKeepTheirBytes()
{
    ConnectedClient connection;
    QVERIFY(connection.deliver(bytes(100)));
    connection.client->cutInbuf(50);
    MovableClock::advance(201);
    QVERIFY(connection.deliver("!"));

    QCOMPARE(connection.takeOffers(),
             QList<QByteArray>({bytes(100), bytes(100).mid(50), bytes(100).mid(50) + '!'}));
}

QTEST_GUILESS_MAIN(tst_ClientOffers)
#include "tst_clientoffers.moc"
