// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "tests/kit/hangguard.h"
#include "tests/kit/movableclock.h"
#include "tests/tcpinput/clienttest.h"
#include "tests/tcpinput/connectedclient.h"
#include "tests/tcpinput/endingtest.h"

#include <QtCore/QCoreApplication>
#include <QtTest/QTest>

using namespace clienttest;
using namespace endingtest;

namespace {

void deleteLaterNow()
{
    QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
}

} // namespace

// Further ways in which a client ends, and the calls that still reach it afterwards.
class tst_ClientEnding : public ClientTest
{
    Q_OBJECT

private Q_SLOTS:
    void init() { begin(); }
    void cleanup() { end(); }

    void peerCloses_data();
    void peerCloses();
    void peerResets();
    void everythingWasCut();
    void unreadBytesBelongToTheLastOffer_data();
    void unreadBytesBelongToTheLastOffer();
    void windingDownReadsWhatArrivedUnseen_data();
    void windingDownReadsWhatArrivedUnseen();
    void windingDownSeesThePeersEnd_data();
    void windingDownSeesThePeersEnd();

    void secondEndDoesNothing();
    void callsAfterTheEnd();
    void queuedCutFindsAnEmptyBuffer();
    void timersAfterTheEnd();
    void socketIsDeletedLater();

    void destructorWithAnOpenSocket();
    void destructorWithASocketThatHasAParent();
    void destructorAfterTheEnd();
};

void tst_ClientEnding::peerCloses_data()
{
    QTest::addColumn<QList<int>>("reads");
    QTest::addColumn<int>("lastOffer");
    QTest::newRow("nothing sent") << QList<int>() << 0;
    QTest::newRow("one byte") << QList<int>({1}) << 1;
    QTest::newRow("one read") << QList<int>({30}) << 30;
    QTest::newRow("three reads, two not offered before") << QList<int>({30, 5, 1200}) << 1235;
}

void tst_ClientEnding::peerCloses()
{
    QFETCH(QList<int>, reads);
    QFETCH(int, lastOffer);
    ConnectedClient connection;
    qint64 received = 0;
    for (int size : reads) {
        QVERIFY(connection.deliver(bytes(size)));
        received += size;
    }
    connection.takeOffers();
    EventLog::take();
    const QString id = reads.isEmpty() ? QStringLiteral("given") : connection.derivedId();

    connection.device.close();
    QVERIFY(connection.socket->waitForDisconnected(HangGuardMs));

    QCOMPARE(EventLog::take(), endOf(id, lastOffer, received, reads.size()));
    QVERIFY(connection.noLockHeld);
    if (lastOffer == 0)
        return;
    QCOMPARE(connection.offers.size(), 1);
    const Connection &offer = connection.offers[0];
    QCOMPARE(offer.getData(), bytes(lastOffer));
    QCOMPARE(offer.getSenderHost().toString(), ConnectedClient::peerAddress());
    QCOMPARE(offer.getSenderPort(), connection.peerPort);
    QCOMPARE(offer.getLocalAddress().toString(), ConnectedClient::localAddress());
    QCOMPARE(offer.getLocalPort(), connection.localPort);
}

void tst_ClientEnding::peerResets()
{
    ConnectedClient connection;
    QVERIFY(connection.deliver("abc"));
    connection.takeOffers();
    EventLog::take();

    connection.device.reset();
    connection.socket->waitForDisconnected(HangGuardMs);

    QCOMPARE(EventLog::take(), endOf(connection.derivedId(), 3, 3, 1));
    QCOMPARE(connection.offers.size(), 1);
    QCOMPARE(connection.offers[0].getSenderPort(), connection.peerPort);
}

void tst_ClientEnding::everythingWasCut()
{
    ConnectedClient connection;
    QVERIFY(connection.deliver("abc"));
    connection.client->cutInbuf(3);
    EventLog::take();

    connection.device.close();
    QVERIFY(connection.socket->waitForDisconnected(HangGuardMs));

    QCOMPARE(EventLog::take(), endOf(connection.derivedId(), 0, 3, 1));
}

void tst_ClientEnding::unreadBytesBelongToTheLastOffer_data()
{
    QTest::addColumn<int>("readBefore");
    QTest::addColumn<int>("unread");
    QTest::newRow("first read") << 0 << 1000;
    QTest::newRow("first read, large") << 0 << 1001;
    QTest::newRow("second read") << 7 << 3;
    QTest::newRow("second read, large") << 7 << 2000;
}

// The socket holds bytes that it has not told the client of.
void tst_ClientEnding::unreadBytesBelongToTheLastOffer()
{
    QFETCH(int, readBefore);
    QFETCH(int, unread);
    ConnectedClient connection;
    if (readBefore > 0)
        QVERIFY(connection.deliver(bytes(readBefore)));
    QVERIFY(connection.deliverBehindTheClient(bytes(unread)));
    connection.takeOffers();
    EventLog::take();

    connection.device.close();
    connection.socket->waitForDisconnected(HangGuardMs);

    QStringList expected;
    if (readBefore == 0)
        expected += firstRead(connection, QStringLiteral("given"));
    if (unread > 1000)
        expected += QStringLiteral("I: TcpClient2 (%1): msgsize = %2")
                            .arg(connection.derivedId())
                            .arg(unread);
    const int all = readBefore + unread;
    QCOMPARE(EventLog::take(),
             expected + endOf(connection.derivedId(), all, all, readBefore > 0 ? 2 : 1));
    QCOMPARE(connection.takeOffers(), QList<QByteArray>({bytes(all)}));
}

void tst_ClientEnding::windingDownReadsWhatArrivedUnseen_data()
{
    QTest::addColumn<int>("readBefore");
    QTest::addColumn<int>("unreadInTheSocket");
    QTest::addColumn<int>("unseen");
    QTest::newRow("nothing before") << 0 << 0 << 5;
    QTest::newRow("after a read") << 9 << 0 << 5;
    QTest::newRow("after some that the socket holds") << 0 << 4 << 5;
    QTest::newRow("large") << 9 << 0 << 60000;
}

// Posted calls run before the kernel's bytes are read. So a busy worker may wind down a connection
// whose last bytes it has not seen.
void tst_ClientEnding::windingDownReadsWhatArrivedUnseen()
{
    QFETCH(int, readBefore);
    QFETCH(int, unreadInTheSocket);
    QFETCH(int, unseen);
    ConnectedClient connection;
    if (readBefore > 0)
        QVERIFY(connection.deliver(bytes(readBefore)));
    if (unreadInTheSocket > 0)
        QVERIFY(connection.deliverBehindTheClient(bytes(unreadInTheSocket)));
    QVERIFY(connection.sendUnseen(bytes(unseen)));
    connection.takeOffers();
    EventLog::take();

    connection.client->mdisconnected();

    const int all = readBefore + unreadInTheSocket + unseen;
    QCOMPARE(connection.takeOffers(), QList<QByteArray>({bytes(all)}));
    const QStringList end = endOf(connection.derivedId(), all, all, readBefore > 0 ? 2 : 1);
    QCOMPARE(EventLog::take().mid(readBefore > 0 ? (unseen > 1000 ? 1 : 0) : 2), end);
    QVERIFY(connection.noLockHeld);
}

void tst_ClientEnding::windingDownSeesThePeersEnd_data()
{
    QTest::addColumn<int>("unseen");
    QTest::addColumn<bool>("reset");
    QTest::newRow("closed") << 0 << false;
    QTest::newRow("closed after bytes") << 5 << false;
    QTest::newRow("reset") << 0 << true;
}

// The peer has already gone when the client is wound down. There is one end, and the offer still
// names the peer.
void tst_ClientEnding::windingDownSeesThePeersEnd()
{
    QFETCH(int, unseen);
    QFETCH(bool, reset);
    ConnectedClient connection;
    QVERIFY(connection.deliver("abc"));
    connection.takeOffers();
    EventLog::take();
    if (unseen > 0)
        QVERIFY(connection.sendUnseen(bytes(unseen)));
    reset ? connection.device.reset() : connection.device.close();
    QVERIFY(connection.peerEndArrived());

    connection.client->mdisconnected();

    QCOMPARE(EventLog::take(),
             endOf(connection.derivedId(), 3 + unseen, 3 + unseen, unseen > 0 ? 2 : 1));
    QCOMPARE(connection.offers.size(), 1);
    QCOMPARE(connection.offers[0].getSenderHost().toString(), ConnectedClient::peerAddress());
    QCOMPARE(connection.offers[0].getSenderPort(), connection.peerPort);
    QCOMPARE(connection.offers[0].getLocalPort(), connection.localPort);
}

void tst_ClientEnding::secondEndDoesNothing()
{
    ConnectedClient connection;
    QVERIFY(connection.deliver("abc"));
    EventLog::take();
    connection.client->mdisconnected();
    QCOMPARE(EventLog::take(), endOf(connection.derivedId(), 3, 3, 1));

    connection.client->mdisconnected();
    QCoreApplication::sendPostedEvents();
    QCOMPARE(EventLog::take(), QStringList());
}

// Queued calls reach a client whose socket is gone.
void tst_ClientEnding::callsAfterTheEnd()
{
    ConnectedClient connection;
    QVERIFY(connection.deliver(bytes(100)));
    TcpClient2 *const client = connection.client.get();
    for (const char *name : {"mreadyRead", "checkData", "mdisconnected"})
        QVERIFY(QMetaObject::invokeMethod(client, name, Qt::QueuedConnection));
    QVERIFY(QMetaObject::invokeMethod(client, "cutInbuf", Qt::QueuedConnection, Q_ARG(int, 5)));
    client->mdisconnected();
    EventLog::take();

    MovableClock::advance(60000);
    QCoreApplication::sendPostedEvents();
    client->discard(0);
    QCoreApplication::sendPostedEvents();

    QCOMPARE(EventLog::take(),
             QStringList(QStringLiteral("W: TcpClient2 (%1): socket not valid (1)")
                                 .arg(connection.derivedId())));
    QCOMPARE(client->currentId(), connection.derivedId());
}

void tst_ClientEnding::queuedCutFindsAnEmptyBuffer()
{
    ConnectedClient connection;
    QVERIFY(connection.deliver(bytes(100)));
    connection.client->discard(10);
    EventLog::take();
    connection.device.close();
    // This is no turn of the event loop: the cut stays queued.
    QVERIFY(connection.socket->waitForDisconnected(HangGuardMs));
    QCOMPARE(EventLog::take(), endOf(connection.derivedId(), 100, 100, 1));

    QCoreApplication::sendPostedEvents();
    QCOMPARE(EventLog::take(), QStringList());
}

void tst_ClientEnding::timersAfterTheEnd()
{
    ConnectedClient connection;
    connection.client->mdisconnected();
    QVERIFY(!connection.client->idleTimer().isActive());
    QVERIFY(!connection.client->backlogCheck().isActive());
}

void tst_ClientEnding::socketIsDeletedLater()
{
    ConnectedClient connection;
    connection.client->mdisconnected();
    QVERIFY(!connection.socket.isNull());
    QCOMPARE(connection.socket->state(), QAbstractSocket::UnconnectedState);
    QVERIFY(connection.device.ends());

    deleteLaterNow();
    QVERIFY(connection.socket.isNull());
}

void tst_ClientEnding::destructorWithAnOpenSocket()
{
    ConnectedClient connection;
    QVERIFY(connection.deliver(bytes(100)));
    QVERIFY(connection.sendUnseen("abc"));
    EventLog::take();

    connection.client.reset();

    QCOMPARE(EventLog::take(), QStringList());
    QVERIFY(connection.socket.isNull());
    QVERIFY(connection.device.ends());
    QCoreApplication::sendPostedEvents();
    deleteLaterNow();
}

void tst_ClientEnding::destructorWithASocketThatHasAParent()
{
    QObject parent;
    ConnectedClient connection(&parent, QStringLiteral("given"), 60000);
    QVERIFY(connection.deliver("abc"));
    EventLog::take();

    connection.client.reset();

    QCOMPARE(EventLog::take(), QStringList());
    QVERIFY(!connection.socket.isNull());
    QVERIFY(!connection.socket->isOpen());
    QVERIFY(connection.device.ends());
    deleteLaterNow();
    QVERIFY(connection.socket.isNull());
}

void tst_ClientEnding::destructorAfterTheEnd()
{
    ConnectedClient connection;
    connection.client->mdisconnected();
    EventLog::take();

    connection.client.reset();
    QCoreApplication::sendPostedEvents();
    deleteLaterNow();
    QCOMPARE(EventLog::take(), QStringList());
}

QTEST_GUILESS_MAIN(tst_ClientEnding)
#include "tst_clientending.moc"
