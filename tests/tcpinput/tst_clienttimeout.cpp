// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "tests/kit/hangguard.h"
#include "tests/kit/movableclock.h"
#include "tests/tcpinput/clienttest.h"
#include "tests/tcpinput/connectedclient.h"
#include "tests/tcpinput/endingtest.h"

#include <QtCore/QCoreApplication>
#include <QtCore/QElapsedTimer>
#include <QtTest/QTest>

using namespace clienttest;
using namespace endingtest;

namespace {

QString timeoutLine()
{
    return QStringLiteral("D: TcpClient: timeout");
}

// Coarse timers may be 5 % early, and both ends of the time are rounded.
int atLeast(int timeoutMs)
{
    return timeoutMs * 95 / 100 - 2;
}

} // namespace

// Clients that their peer leaves alone for too long.
class tst_ClientTimeout : public ClientTest
{
    Q_OBJECT

private Q_SLOTS:
    void init() { begin(); }
    void cleanup() { end(); }

    void silentPeer();
    void timeoutIsQueued();
    void deliveriesKeepItOpen();
    void timeoutReadsWhatArrivedUnseen_data();
    void timeoutReadsWhatArrivedUnseen();
    void timeoutOfAClientThatHasEnded();
};

void tst_ClientTimeout::silentPeer()
{
    QElapsedTimer sinceConstruction;
    sinceConstruction.start();
    const QString id = QStringLiteral("given");
    ConnectedClient connection(id, 50);
    EventLog::take();
    bool gone = false;
    connect(connection.client.get(), &TcpClient2::disconnected, this, [&] { gone = true; });

    QTRY_VERIFY_WITH_TIMEOUT(gone, HangGuardMs);

    QVERIFY(sinceConstruction.elapsed() >= atLeast(50));
    QCOMPARE(EventLog::take(), QStringList(timeoutLine()) + endOf(id, 0, 0, 0));
    QVERIFY(connection.device.ends());
    QVERIFY(connection.noLockHeld);

    QVERIFY(!connection.client->idleTimer().isActive());
    QCoreApplication::processEvents();
    QCOMPARE(EventLog::take(), QStringList());
}

void tst_ClientTimeout::timeoutIsQueued()
{
    ConnectedClient connection;
    EventLog::take();

    takeIdleRestart(*connection.client);
    QVERIFY(QMetaObject::invokeMethod(&connection.client->idleTimer(), "timeout"));
    QCOMPARE(EventLog::take(), QStringList());

    QCoreApplication::sendPostedEvents();
    QCOMPARE(EventLog::take(),
             QStringList(timeoutLine()) + endOf(QStringLiteral("given"), 0, 0, 0));
}

// The idle time counts from the last offer. Whatever the machine's load, it is never over earlier.
// Its end makes an offer, too.
void tst_ClientTimeout::deliveriesKeepItOpen()
{
    constexpr int TimeoutMs = 500;
    constexpr int Deliveries = 40;
    ConnectedClient connection(QStringLiteral("id"), TimeoutMs);
    QElapsedTimer sinceOffer;
    qint64 idleMs = -1;
    bool gone = false;
    connect(connection.client.get(), &TcpClient2::readyRead, this, [&] {
        if (sinceOffer.isValid())
            idleMs = sinceOffer.elapsed();
        sinceOffer.start();
    });
    connect(connection.client.get(), &TcpClient2::disconnected, this, [&] { gone = true; });
    QTimer device;
    int sent = 0;
    connect(&device, &QTimer::timeout, this, [&] {
        MovableClock::advance(201);
        if (++sent <= Deliveries)
            connection.device.send("x");
    });
    device.start(50);
    QVERIFY(connection.deliver("x"));

    QTRY_VERIFY_WITH_TIMEOUT(gone, HangGuardMs);

    QVERIFY(sent > Deliveries);
    QVERIFY2(idleMs >= atLeast(TimeoutMs), QByteArray::number(idleMs));
}

void tst_ClientTimeout::timeoutReadsWhatArrivedUnseen_data()
{
    QTest::addColumn<bool>("peerCloses");
    QTest::newRow("open") << false;
    QTest::newRow("closed") << true;
}

void tst_ClientTimeout::timeoutReadsWhatArrivedUnseen()
{
    QFETCH(bool, peerCloses);
    ConnectedClient connection;
    EventLog::take();
    QVERIFY(connection.sendUnseen("abc"));
    if (peerCloses) {
        connection.device.close();
        QVERIFY(connection.peerEndArrived());
    }

    QVERIFY(QMetaObject::invokeMethod(connection.client.get(), "timeout"));

    QCOMPARE(EventLog::take(),
             QStringList(timeoutLine()) + firstRead(connection, QStringLiteral("given"))
                     + endOf(connection.derivedId(), 3, 3, 1));
    QCOMPARE(connection.takeOffers(), QList<QByteArray>({"abc"}));
}

void tst_ClientTimeout::timeoutOfAClientThatHasEnded()
{
    ConnectedClient connection;
    connection.client->mdisconnected();
    EventLog::take();

    QVERIFY(QMetaObject::invokeMethod(connection.client.get(), "timeout"));
    QCOMPARE(EventLog::take(), QStringList(timeoutLine()));
}

QTEST_GUILESS_MAIN(tst_ClientTimeout)
#include "tst_clienttimeout.moc"
