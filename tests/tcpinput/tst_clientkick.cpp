// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "tests/kit/hangguard.h"
#include "tests/kit/movableclock.h"
#include "tests/tcpinput/clienttest.h"
#include "tests/tcpinput/connectedclient.h"
#include "tests/tcpinput/readingtest.h"

#include <QtCore/QElapsedTimer>
#include <QtTest/QTest>

using namespace clienttest;
using namespace readingtest;

// Bytes that the host has not answered for long are offered again.
class tst_ClientKick : public ClientTest
{
    Q_OBJECT

private Q_SLOTS:
    void init() { begin(); }
    void cleanup() { end(); }

    void kick_data();
    void kick();
    void kicksGoOn();
    void intervalBeginsBeforeTheOfferOfAKick();
    void checkTimerKicks();
    void kickInRealTime();
};

void tst_ClientKick::kick_data()
{
    QTest::addColumn<int>("size");
    QTest::addColumn<int>("elapsedMs");
    QTest::addColumn<bool>("kicked");
    QTest::newRow("80 bytes, 2001 ms") << 80 << 2001 << false;
    QTest::newRow("81 bytes, 2001 ms") << 81 << 2001 << true;
    QTest::newRow("81 bytes, 2000 ms") << 81 << 2000 << false;
    QTest::newRow("80 bytes, an hour") << 80 << int(HourMs) << false;
    QTest::newRow("5000 bytes, 0 ms") << 5000 << 0 << false;
    QTest::newRow("5000 bytes, an hour") << 5000 << int(HourMs) << true;
}

void tst_ClientKick::kick()
{
    QFETCH(int, size);
    QFETCH(int, elapsedMs);
    QFETCH(bool, kicked);
    ConnectedClient connection;
    QVERIFY(connection.deliver(bytes(size)));
    connection.takeOffers();
    EventLog::take();

    MovableClock::advance(elapsedMs);
    check(*connection.client);

    QStringList expected;
    if (kicked)
        expected = kickLines(size) + QStringList(offerLine(size, connection));
    QCOMPARE(takeKick(), expected);
    QCOMPARE(connection.takeOffers(),
             kicked ? QList<QByteArray>({bytes(size)}) : QList<QByteArray>());
    QVERIFY(connection.noLockHeld);
}

void tst_ClientKick::kicksGoOn()
{
    ConnectedClient connection;
    QVERIFY(connection.deliver(bytes(81)));
    connection.takeOffers();
    for (int times = 0; times < 3; ++times) {
        MovableClock::advance(2001);
        check(*connection.client);
        check(*connection.client);
        QCOMPARE(connection.takeOffers(), QList<QByteArray>({bytes(81)}));
    }
}

void tst_ClientKick::intervalBeginsBeforeTheOfferOfAKick()
{
    ConnectedClient connection;
    QVERIFY(connection.deliver(bytes(81)));
    connect(
            connection.client.get(), &TcpClient2::readyRead, this,
            [] { MovableClock::advance(150); }, Qt::SingleShotConnection);
    MovableClock::advance(2001);
    check(*connection.client);
    connection.takeOffers();

    MovableClock::advance(51);
    QVERIFY(connection.deliver("!"));
    QCOMPARE(connection.takeOffers(), QList<QByteArray>({bytes(81) + '!'}));
}

void tst_ClientKick::checkTimerKicks()
{
    ConnectedClient connection;
    QVERIFY(connection.deliver(bytes(81)));
    connection.takeOffers();
    QTimer &timer = connection.client->backlogCheck();
    for (const int elapsedMs : {2001, 1000, 1001}) { // the second check kicks nothing
        MovableClock::advance(elapsedMs);
        timer.stop(); // as it is when it fires
        QVERIFY(QMetaObject::invokeMethod(&timer, "timeout"));
        QVERIFY(timer.isActive()); // for the next check
        QCOMPARE(connection.takeOffers().size(), elapsedMs == 1000 ? 0 : 1);
    }
}

// With the real clock and the real timer.
void tst_ClientKick::kickInRealTime()
{
    clock.reset();
    ConnectedClient connection;
    QElapsedTimer sinceBefore;
    sinceBefore.start();
    QVERIFY(connection.deliver(bytes(81)));

    QTRY_COMPARE_WITH_TIMEOUT(connection.offers.size(), 2, HangGuardMs);
    QVERIFY(sinceBefore.elapsed() >= 2000);
    QCOMPARE(connection.takeOffers(), QList<QByteArray>({bytes(81), bytes(81)}));
}

QTEST_GUILESS_MAIN(tst_ClientKick)
#include "tst_clientkick.moc"
