// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "tests/kit/hangguard.h"
#include "tests/kit/movableclock.h"
#include "tests/tcpinput/connectedclient.h"

#include <QtCore/QCoreApplication>
#include <QtCore/QElapsedTimer>
#include <QtCore/QRegularExpression>
#include <QtCore/QThread>
#include <QtTest/QSignalSpy>
#include <QtTest/QTest>

#include <limits>

namespace {

constexpr qint64 HourMs = 60 * 60 * 1000;

QByteArray bytes(int size)
{
    QByteArray result(size, '.');
    for (int i = 0; i < size; ++i)
        result[i] = char('a' + i % 26);
    return result;
}

// Qt's warning of the surplus argument comes first; its punctuation differs between versions.
QStringList kickLines(int size)
{
    return {QStringLiteral("w: surplus %1").arg(size),
            QStringLiteral("I: TcpClient: inbuf parsing stopped, kicking")};
}

QStringList takeKick()
{
    static const QRegularExpression surplus(
            QStringLiteral("^w: QString::arg: Argument missing: "
                           "\"?TcpClient: inbuf parsing stopped, kicking\"? ?, (\\d+)$"));
    QStringList lines = EventLog::take();
    lines.replaceInStrings(surplus, QStringLiteral("w: surplus \\1"));
    return lines;
}

QString offerLine(int size, const ConnectedClient &connection)
{
    return QStringLiteral("offer of %1 bytes by %2").arg(size).arg(connection.derivedId());
}

void check(TcpClient2 &client)
{
    QVERIFY(QMetaObject::invokeMethod(&client, "checkData"));
}

} // namespace

// The way of the bytes: read, offered, cut, offered again.
class tst_ClientReading : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init();
    void cleanup();

    void firstRead();
    void firstReadWithTheRightId();
    void idIsDerivedOnce();
    void offerDescribesTheConnection();
    void nothingAvailable();
    void socketNotValid();
    void socketInvalidatedWhileReading();
    void clientEndedWhileReading();

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

    void kick_data();
    void kick();
    void kicksGoOn();
    void intervalBeginsBeforeTheOfferOfAKick();
    void checkTimerKicks();
    void kickInRealTime();

    void offersRestartTheIdleTime_data();
    void offersRestartTheIdleTime();
    void idleTimerIsSetToTheRest();
    void checkTimerRunsWhileThereIsSomethingToCheck();
    void takerGetsOffersBeforeTheSignal();
    void signalComesToWhoeverConnectsLate();
    void remainderWaitsForTheNextRead();

private:
    std::unique_ptr<EventLog> log;
    std::unique_ptr<MovableClock> clock;
};

void tst_ClientReading::init()
{
    log = std::make_unique<EventLog>();
    clock = std::make_unique<MovableClock>();
}

void tst_ClientReading::cleanup()
{
    clock.reset();
    log.reset();
}

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

// The id is derived and the size line written before the socket is looked at once more.
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

void tst_ClientReading::offerInterval_data()
{
    QTest::addColumn<int>("elapsedMs");
    QTest::addColumn<bool>("offered");
    QTest::newRow("at once") << 0 << false;
    QTest::newRow("100 ms") << 100 << false;
    QTest::newRow("200 ms") << 200 << false;
    QTest::newRow("201 ms") << 201 << true;
    QTest::newRow("an hour") << int(HourMs) << true;
}

void tst_ClientReading::offerInterval()
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

void tst_ClientReading::clockSetBack_data()
{
    QTest::addColumn<qint64>("backMs");
    QTest::newRow("1 ms") << qint64(1);
    QTest::newRow("100 ms") << qint64(100);
    QTest::newRow("an hour") << HourMs;
    QTest::newRow("ten years") << HourMs * 24 * 3650;
}

// Neither a read nor a kick waits for the clock to catch up.
void tst_ClientReading::clockSetBack()
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

void tst_ClientReading::intervalBeginsBeforeTheOfferOnTheReadPath()
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

void tst_ClientReading::sizeLine_data()
{
    QTest::addColumn<int>("size");
    QTest::addColumn<bool>("logged");
    QTest::newRow("1") << 1 << false;
    QTest::newRow("1000") << 1000 << false;
    QTest::newRow("1001") << 1001 << true;
    QTest::newRow("20000") << 20000 << true;
}

void tst_ClientReading::sizeLine()
{
    QFETCH(int, size);
    QFETCH(bool, logged);
    ConnectedClient connection;
    EventLog::take();
    // The first read shows the new id, later ones need no offer for their line.
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

void tst_ClientReading::cutInbuf_data()
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

void tst_ClientReading::cutInbuf()
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
    // What is left is what the next offer begins with.
    MovableClock::advance(201);
    QVERIFY(connection.deliver("!"));
    QCOMPARE(connection.takeOffers(), QList<QByteArray>({rest + '!'}));
    QVERIFY(connection.noLockHeld);
    if (shared)
        QCOMPARE(held, QList<QByteArray>({bytes(size)}));
}

// The receiver of an offer holds a large one while all but a little of it is cut.
void tst_ClientReading::cutDoesNotKeepTheMemory()
{
    ConnectedClient connection;
    QVERIFY(connection.deliver(bytes(60000)));
    const QList<QByteArray> held = connection.takeOffers();

    connection.client->cutInbuf(60000 - 21);

    const QList<QByteArray> rest = connection.takeOffers();
    QCOMPARE(rest, QList<QByteArray>({bytes(60000).right(21)}));
    QVERIFY2(rest[0].capacity() < 1000, QByteArray::number(rest[0].capacity()));
}

void tst_ClientReading::cutOfEverythingFreesTheMemory()
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

void tst_ClientReading::cutOfNothingOffersAgain()
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

// Two reads within the interval: the cut of the first offer brings the second.
void tst_ClientReading::cutHasNoTimeCondition()
{
    ConnectedClient connection;
    QVERIFY(connection.deliver("abc"));
    MovableClock::advance(100);
    QVERIFY(connection.deliver(bytes(21)));
    QCOMPARE(connection.takeOffers(), QList<QByteArray>({"abc"}));

    connection.client->cutInbuf(3);
    QCOMPARE(connection.takeOffers(), QList<QByteArray>({bytes(21)}));
}

void tst_ClientReading::intervalBeginsAfterTheOfferOnTheCutPath()
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

void tst_ClientReading::discardIsQueued()
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

void tst_ClientReading::discardFromAnotherThread()
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

void tst_ClientReading::offersKeepTheirBytes()
{
    ConnectedClient connection;
    QVERIFY(connection.deliver(bytes(100)));
    connection.client->cutInbuf(50);
    MovableClock::advance(201);
    QVERIFY(connection.deliver("!"));

    QCOMPARE(connection.takeOffers(),
             QList<QByteArray>({bytes(100), bytes(100).mid(50), bytes(100).mid(50) + '!'}));
}

void tst_ClientReading::kick_data()
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

void tst_ClientReading::kick()
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

void tst_ClientReading::kicksGoOn()
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

void tst_ClientReading::intervalBeginsBeforeTheOfferOfAKick()
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

void tst_ClientReading::checkTimerKicks()
{
    ConnectedClient connection;
    QVERIFY(connection.deliver(bytes(81)));
    connection.takeOffers();
    QTimer &timer = connection.client->backlogCheck();
    for (const int elapsedMs : {2001, 1000, 1001}) { // the second one has nothing to kick
        MovableClock::advance(elapsedMs);
        timer.stop(); // as it is when it fires
        QVERIFY(QMetaObject::invokeMethod(&timer, "timeout"));
        QVERIFY(timer.isActive()); // for the next one
        QCOMPARE(connection.takeOffers().size(), elapsedMs == 1000 ? 0 : 1);
    }
}

// With the real clock and the real timer.
void tst_ClientReading::kickInRealTime()
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

// The timer fires a whole time-out after it was started, and is then set to the rest.
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

// Of thousands of clients few have anything to check.
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

// Nothing is put together for nobody; that must not cost anybody an offer.
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
