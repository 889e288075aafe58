// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "tests/kit/hangguard.h"
#include "tests/kit/movableclock.h"
#include "tests/tcpinput/clienttest.h"
#include "tests/tcpinput/connectedclient.h"
#include "tests/tcpinput/readingtest.h"

#include <QtCore/QCoreApplication>
#include <QtCore/QRegularExpression>
#include <QtTest/QSignalSpy>
#include <QtTest/QTest>

using namespace clienttest;
using namespace readingtest;

// What a client does when it reads.
class tst_ClientReading : public ClientTest
{
    Q_OBJECT

private Q_SLOTS:
    void init() { begin(); }
    void cleanup() { end(); }

    void firstRead();
    void firstReadWithTheRightId();
    void idIsDerivedOnce();
    void offerDescribesTheConnection();
    void nothingAvailable();
    void socketNotValid();
    void socketInvalidatedWhileReading();
    void clientEndedWhileReading();

    void offersRestartTheIdleTime_data();
    void offersRestartTheIdleTime();
    void idleTimerIsSetToTheRest();
    void checkTimerRunsWhileThereIsSomethingToCheck();
    void takerGetsOffersBeforeTheSignal();
    void signalComesToWhoeverConnectsLate();
    void remainderWaitsForTheNextRead();
};

void tst_ClientReading::firstRead()
{
    ConnectedClient connection(QStringLiteral("given"));
    EventLog::take();

    QVERIFY(connection.deliver("abc"));

    const QString local = ConnectedClient::localAddress();
    const QString peer = ConnectedClient::peerAddress();
    QCOMPARE(EventLog::take(),
             QStringList({QStringLiteral("D: TCP READ: %1:%2 (%3:%4)")
                                  .arg(local)
                                  .arg(connection.localPort)
                                  .arg(peer)
                                  .arg(connection.peerPort),
                          QStringLiteral("idChanged given to ") + connection.derivedId(),
                          offerLine(3, connection)}));
    QCOMPARE(connection.takeOffers(), QList<QByteArray>({"abc"}));
    QCOMPARE(connection.client->getId(), connection.derivedId());
    QCOMPARE(connection.client->currentId(), connection.derivedId());
    QVERIFY(connection.noLockHeld);
}

void tst_ClientReading::firstReadWithTheRightId()
{
    ConnectedClient connection(ConnectedClient::WithoutClient{});
    connection.makeClient(connection.derivedId());
    EventLog::take();

    QVERIFY(connection.deliver("abc"));

    const QStringList lines = EventLog::take();
    QCOMPARE(lines.size(), 2);
    QVERIFY(lines[0].startsWith(QStringLiteral("D: TCP READ: ")));
    QCOMPARE(lines[1], offerLine(3, connection));
    QCOMPARE(connection.client->getId(), connection.derivedId());
}

void tst_ClientReading::idIsDerivedOnce()
{
    ConnectedClient connection;
    QVERIFY(connection.deliver("abc"));
    EventLog::take();
    connection.client->getId() = QStringLiteral("another");

    MovableClock::advance(201);
    QVERIFY(connection.deliver("def"));

    QCOMPARE(EventLog::take(), QStringList(QStringLiteral("offer of 6 bytes by another")));
}

void tst_ClientReading::offerDescribesTheConnection()
{
    ConnectedClient connection;
    QVERIFY(connection.deliver("abc"));

    QCOMPARE(connection.offers.size(), 1);
    const Connection &offer = connection.offers[0];
    QCOMPARE(offer.getData(), QByteArray("abc"));
    QCOMPARE(offer.getSenderHost().toString(), ConnectedClient::peerAddress());
    QCOMPARE(offer.getSenderPort(), connection.peerPort);
    QCOMPARE(offer.getLocalAddress().toString(), ConnectedClient::localAddress());
    QCOMPARE(offer.getLocalPort(), connection.localPort);
    QCOMPARE(offer.getPluginId(), QString());
    QCOMPARE(offer.getSocket(), nullptr);
    QCOMPARE(offer.getUdpSocket(), nullptr);
    QCOMPARE(offer.getTimeout(), 0);
    QCOMPARE(offer.getSsl(), false);
    QCOMPARE(offer.getTcpServer(), nullptr);
    QCOMPARE(offer.getSslServer(), nullptr);
}

void tst_ClientReading::nothingAvailable()
{
    ConnectedClient connection;
    EventLog::take();

    connection.client->mreadyRead();

    QCOMPARE(EventLog::take(), QStringList());
    QCOMPARE(connection.client->getId(), QStringLiteral("given"));
}

void tst_ClientReading::socketNotValid()
{
    QTcpSocket neverConnected;
    TcpClient2 client(nullptr, QStringLiteral("some id"), &neverConnected, 60000);
    EventLog::take();

    client.mreadyRead();

    QCOMPARE(EventLog::take(),
             QStringList(QStringLiteral("W: TcpClient2 (some id): socket not valid (1)")));
    neverConnected.setParent(nullptr);
}

// The id is derived and the size line is written before the client looks at the socket again.
void tst_ClientReading::socketInvalidatedWhileReading()
{
    ConnectedClient connection;
    EventLog::take();
    connect(connection.client.get(), &TcpClient2::idChanged, this, [&] {
        connection.socket->disconnect(connection.client.get());
        connection.socket->close();
    });

    connection.deliver(bytes(1001));

    const QStringList lines = EventLog::take();
    QCOMPARE(lines.size(), 4);
    QVERIFY(lines[0].startsWith(QStringLiteral("D: TCP READ: ")));
    QVERIFY(lines[1].startsWith(QStringLiteral("idChanged ")));
    QCOMPARE(lines[2],
             QStringLiteral("I: TcpClient2 (%1): msgsize = 1001").arg(connection.derivedId()));
    QCOMPARE(
            lines[3],
            QStringLiteral("W: TcpClient2 (%1): socket not valid (2)").arg(connection.derivedId()));
}

void tst_ClientReading::clientEndedWhileReading()
{
    ConnectedClient connection;
    EventLog::take();
    connect(connection.client.get(), &TcpClient2::idChanged, connection.client.get(),
            &TcpClient2::mdisconnected);

    connection.deliver("abc");

    QCOMPARE(EventLog::take().filter(QStringLiteral("closing connection")).size(), 1);
}

void tst_ClientReading::offersRestartTheIdleTime_data()
{
    QTest::addColumn<bool>("hasTaker");
    QTest::newRow("by signal") << false;
    QTest::newRow("to a taker") << true;
}

void tst_ClientReading::offersRestartTheIdleTime()
{
    ConnectedClient connection;
    QFETCH(bool, hasTaker);
    if (hasTaker) {
        disconnect(connection.client.get(), &TcpClient2::readyRead, nullptr, nullptr);
        connection.client->offerTo([](const QByteArray &) {});
    }
    const auto restarted = [&] { return takeIdleRestart(*connection.client); };
    QVERIFY(restarted()); // at the beginning
    QVERIFY(connection.deliver(bytes(100)));
    QVERIFY(restarted());

    QVERIFY(connection.deliver("!")); // not offered
    QVERIFY(!restarted());

    connection.client->cutInbuf(10);
    QVERIFY(restarted());
    MovableClock::advance(2001);
    check(*connection.client);
    QVERIFY(restarted());
    check(*connection.client);
    QVERIFY(!restarted());
    connection.client->cutInbuf(80);
    QVERIFY(!restarted());
    connection.client->emitData();
    QVERIFY(restarted());
}

// The timer fires a whole time-out after its start, and is then set to the rest.
void tst_ClientReading::idleTimerIsSetToTheRest()
{
    ConnectedClient connection;
    QTimer &idle = connection.client->idleTimer();
    QVERIFY(QMetaObject::invokeMethod(&idle, "timeout"));
    QCoreApplication::sendPostedEvents();
    QVERIFY(idle.isActive());
    QVERIFY(idle.interval() > 0 && idle.interval() <= 600000);
    QVERIFY(connection.deliver("still open"));
    QCOMPARE(connection.takeOffers(), QList<QByteArray>({"still open"}));
}

// Of thousands of clients, few have anything to check.
void tst_ClientReading::checkTimerRunsWhileThereIsSomethingToCheck()
{
    ConnectedClient connection;
    const QTimer &timer = connection.client->backlogCheck();
    QVERIFY(connection.deliver(bytes(80)));
    QVERIFY(!timer.isActive());
    QVERIFY(connection.deliver("!"));
    QVERIFY(timer.isActive());
    QVERIFY(timer.interval() > 0 && timer.interval() <= 2000);

    check(*connection.client);
    QVERIFY(timer.isActive());
    connection.client->cutInbuf(1);
    QTRY_VERIFY_WITH_TIMEOUT(!timer.isActive(), HangGuardMs);
}

void tst_ClientReading::takerGetsOffersBeforeTheSignal()
{
    ConnectedClient connection;
    TcpClient2 *const client = connection.client.get();
    client->stampOffers(7);
    client->offerTo([&](const QByteArray &data) {
        EventLog::note(QStringLiteral("taken: %1 from %2 on by %3")
                               .arg(QString::fromLatin1(data))
                               .arg(client->offerPosition())
                               .arg(client->getId()));
    });
    QVERIFY(connection.deliver("abcdefghijklmnopqrstuvwxyz"));
    client->cutInbuf(2);
    const QString id = connection.derivedId();
    const QStringList events = EventLog::take();
    QCOMPARE(events.filter(QRegularExpression(QStringLiteral("^(taken|offer)"))),
             QStringList({QStringLiteral("taken: abcdefghijklmnopqrstuvwxyz from 0 on by ") + id,
                          QStringLiteral("offer of 26 bytes by ") + id,
                          QStringLiteral("taken: cdefghijklmnopqrstuvwxyz from 2 on by ") + id,
                          QStringLiteral("offer of 24 bytes by ") + id}));

    client->offerTo({});
    client->emitData();
    QCOMPARE(EventLog::take(), QStringList({QStringLiteral("offer of 24 bytes by ") + id}));
}

// Without a receiver the client prepares no signal. A receiver that connects later must still get
// its offer.
void tst_ClientReading::signalComesToWhoeverConnectsLate()
{
    ConnectedClient connection((ConnectedClient::WithoutClient()));
    TcpClient2 client(nullptr, QStringLiteral("given"), connection.socket, 600000);
    QVERIFY(connection.deliver("nobody's"));
    QList<QByteArray> offers;
    QSignalSpy spy(&client, &TcpClient2::readyRead); // connects in a way of its own
    client.emitData();
    QCOMPARE(spy.size(), 1);
    connect(&client, &TcpClient2::readyRead, this, [&](const Connection &c, const QString &id) {
        offers.append(c.getData());
        QCOMPARE(id, connection.derivedId());
        QCOMPARE(c.getSenderHost().toString(), ConnectedClient::peerAddress());
        QCOMPARE(c.getSenderPort(), connection.peerPort);
        QCOMPARE(c.getLocalAddress().toString(), ConnectedClient::localAddress());
        QCOMPARE(c.getLocalPort(), connection.localPort);
    });
    client.emitData();
    QCOMPARE(offers, QList<QByteArray>({"nobody's"}));
    QCOMPARE(spy.size(), 2);
}

void tst_ClientReading::remainderWaitsForTheNextRead()
{
    ConnectedClient connection;
    QVERIFY(connection.deliver(bytes(40)));
    connection.takeOffers();
    connection.client->cutInbuf(20);
    MovableClock::advance(HourMs);
    check(*connection.client);
    QCOMPARE(connection.takeOffers(), QList<QByteArray>());

    QVERIFY(connection.deliver("!"));
    QCOMPARE(connection.takeOffers(), QList<QByteArray>({bytes(40).mid(20) + '!'}));
}

QTEST_GUILESS_MAIN(tst_ClientReading)
#include "tst_clientreading.moc"
