// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "tcpinput/receive/receivingsocket.h"
#include "tests/kit/hangguard.h"
#include "tests/kit/movableclock.h"
#include "tests/kit/worker.h"
#include "tests/tcpinput/clienttest.h"
#include "tests/tcpinput/connectedclient.h"
#include "tests/tcpinput/cuttingtest.h"

#include <QtCore/QCoreApplication>
#include <QtCore/QSemaphore>
#include <QtCore/QThread>
#include <QtTest/QTest>

#include <atomic>
#include <chrono>
#include <memory>
#include <random>

using namespace clienttest;
using namespace cuttingtest;

namespace {

struct Offer
{
    quint64 position;
    QByteArray data;
    quint64 end() const { return position + quint64(data.size()); }
};

} // namespace

// Cuts among other cuts and reads.
class tst_ClientCutOrder : public ClientTest
{
    Q_OBJECT

private Q_SLOTS:
    void init() { begin(); }
    void cleanup() { end(); }

    void noCutOvertakesAnother_data();
    void noCutOvertakesAnother();
    void readRightBehindACut_data();
    void readRightBehindACut();
    void readBetweenCutAndRead_data();
    void readBetweenCutAndRead();
    void readInTheTurnOfACut();
    void cutWhileTheWorkerReads_data();
    void cutWhileTheWorkerReads();
};

void tst_ClientCutOrder::noCutOvertakesAnother_data()
{
    QTest::addColumn<bool>("toPositions");
    QTest::newRow("lengths") << false;
    QTest::newRow("positions") << true;
}

// Without the first cut, the second would be carried out at once. The first would then leave so
// little that the host would see no offer after it.
void tst_ClientCutOrder::noCutOvertakesAnother()
{
    QFETCH(bool, toPositions);
    ConnectedClient connection;
    connection.client->stampOffers(1);
    QVERIFY(connection.deliver(bytes(100)));
    const PostedCalls calls(connection.client.get());
    const auto cut = [&](int len, quint64 position) {
        inAnotherThread([&] {
            if (toPositions)
                connection.client->discardTo(position);
            else
                connection.client->discard(len);
        });
    };

    cut(10, 10);
    cut(80, 90);
    QCOMPARE(heldBy(connection), bytes(100));

    QCoreApplication::sendPostedEvents();
    QCOMPARE(calls.count, 2);
    QCOMPARE(connection.takeOffers(), QList<QByteArray>({bytes(100).mid(10)}));
    QCOMPARE(heldBy(connection), bytes(100).mid(90));

    // From then on no cut is on its way.
    cut(5, 95);
    QCOMPARE(heldBy(connection), bytes(100).mid(95));
    QCoreApplication::sendPostedEvents();
    QCOMPARE(calls.count, 2);
}

void tst_ClientCutOrder::readRightBehindACut_data()
{
    QTest::addColumn<int>("left");
    QTest::addColumn<int>("size");
    QTest::addColumn<qint64>("delayNs");
    QTest::addColumn<bool>("offered");
    const qint64 most = 150'000;
    QTest::newRow("at once") << 0 << 30 << qint64(0) << true;
    QTest::newRow("as late as counts") << 0 << 30 << most << true;
    QTest::newRow("later") << 0 << 30 << most + 1 << false;
    QTest::newRow("next to a remainder") << 20 << 1 << qint64(0) << true;
    QTest::newRow("next to a remainder, later") << 20 << 1 << most + 1 << false;
    QTest::newRow("too few bytes") << 0 << 20 << qint64(0) << false;
    QTest::newRow("too few with a remainder") << 15 << 5 << qint64(0) << false;
}

// For offers, the cut counts as the later of the two. Otherwise the bytes of the read would have to
// wait for the next read, a kick or the end.
void tst_ClientCutOrder::readRightBehindACut()
{
    QFETCH(int, left);
    QFETCH(int, size);
    QFETCH(qint64, delayNs);
    QFETCH(bool, offered);
    ConnectedClient connection;
    connection.client->stampOffers(1);
    QVERIFY(connection.deliver(bytes(100)));
    inAnotherThread([&] { connection.client->discard(100 - left); });
    connection.takeOffers();
    EventLog::take();

    MovableClock::advance(std::chrono::nanoseconds(delayNs));
    QVERIFY(connection.deliver(QByteArray(size, '!')));

    const QByteArray all = bytes(100).last(left) + QByteArray(size, '!');
    QCOMPARE(connection.takeOffers(), offered ? QList<QByteArray>({all}) : QList<QByteArray>());
    const QStringList events = EventLog::take();
    if (offered) {
        QCOMPARE(connection.client->offerPosition(), quint64(100 - left));
        QCOMPARE(events.value(0),
                 QStringLiteral("D: TcpClient: inbuf still %1 bytes, triggering").arg(all.size()));
    } else {
        QCOMPARE(events, QStringList());
    }
    // The cut does not count for further reads.
    QVERIFY(connection.deliver("more than twenty bytes more"));
    QCOMPARE(connection.takeOffers(), QList<QByteArray>());
}

void tst_ClientCutOrder::readBetweenCutAndRead_data()
{
    QTest::addColumn<bool>("due");
    QTest::newRow("offered as always") << true;
    QTest::newRow("too small to be offered") << false;
}

// The cut was made before the first read, and so before the second.
void tst_ClientCutOrder::readBetweenCutAndRead()
{
    QFETCH(bool, due);
    ConnectedClient connection;
    QVERIFY(connection.deliver(bytes(30)));
    inAnotherThread([&] { connection.client->discard(30); });
    connection.takeOffers();
    if (due) {
        MovableClock::advance(-1); // a clock that was set back: an offer is due
        QVERIFY(connection.deliver(bytes(21)));
        QCOMPARE(connection.takeOffers(), QList<QByteArray>({bytes(21)}));
    } else {
        QVERIFY(connection.deliver("!"));
    }

    QVERIFY(connection.deliver(bytes(30)));
    QCOMPARE(connection.takeOffers(), QList<QByteArray>());
}

// Bytes that were there when the worker's turn began come before a cut that is asked for within the
// turn, however late they are read.
void tst_ClientCutOrder::readInTheTurnOfACut()
{
    using namespace std::chrono;
    clock.reset();
    Clock::setSources([]() -> qint64 { return 1'600'000'000'000; }, &steady_clock::now);
    Worker worker;
    QSemaphore offered; // by either client
    SocketPair pairs[2];
    int accepted[2];
    std::unique_ptr<TcpClient2> clients[2];
    for (int n = 0; n < 2; ++n) {
        pairs[n] = SocketPair::connected(QHostAddress(ConnectedClient::localAddress()),
                                         QHostAddress(ConnectedClient::peerAddress()));
        worker.run([&] {
            accepted[n] = pairs[n].accepted.release();
            clients[n] = std::make_unique<TcpClient2>(
                    nullptr, QString::number(n),
                    new ReceivingSocket(accepted[n], Endpoints::of(accepted[n])), 600000);
            QObject::connect(
                    clients[n].get(), &TcpClient2::readyRead, clients[n].get(),
                    [&, n] {
                        if (n == 0) {
                            inAnotherThread([&] { clients[1]->discard(30); });
                            const auto asked = steady_clock::now();
                            while (steady_clock::now() - asked < milliseconds(2)) {}
                        }
                        offered.release();
                    },
                    Qt::DirectConnection);
        });
    }
    QVERIFY(pairs[1].device.send(bytes(30)));
    QVERIFY(offered.tryAcquire(1, HangGuardMs));

    worker.block();
    for (int n = 0; n < 2; ++n) { // both wait when the worker looks
        QVERIFY(pairs[n].device.send(bytes(30)));
        QVERIFY(NativeSocket::waitForArrival(accepted[n], 30));
    }
    worker.release();

    QVERIFY(offered.tryAcquire(2, HangGuardMs));
    worker.run([&] {
        for (auto &client : clients)
            client.reset();
    });
    worker.quitAndWait();
}

void tst_ClientCutOrder::cutWhileTheWorkerReads_data()
{
    QTest::addColumn<bool>("toPositions");
    QTest::addColumn<int>("total");
    QTest::addColumn<int>("atOnce");
    for (bool toPositions : {false, true}) {
        const char *const how = toPositions ? "positions" : "lengths";
        // Most cuts leave so little that they are carried out at once.
        QTest::addRow("%s, small", how) << toPositions << 300000 << 10;
        QTest::addRow("%s, large", how) << toPositions << 3000000 << 5000;
    }
}

// Every read is offered, and the host answers while the next reads come in. No byte is left out,
// each is in its place, and at the end none is left.
void tst_ClientCutOrder::cutWhileTheWorkerReads()
{
    QFETCH(bool, toPositions);
    QFETCH(int, total);
    QFETCH(int, atOnce);
    static std::atomic<qint64> time;
    Clock::setSources([]() -> qint64 { return time += 201; }, &std::chrono::steady_clock::now);
    Worker worker;
    SocketPair pair = SocketPair::connected(QHostAddress(ConnectedClient::localAddress()),
                                            QHostAddress(ConnectedClient::peerAddress()));
    QObject host; // its slots run in this thread
    QList<Offer> offers;
    std::unique_ptr<TcpClient2> client;
    worker.run([&] {
        const int descriptor = pair.accepted.release();
        auto *socket = new ReceivingSocket(descriptor, Endpoints::of(descriptor));
        client = std::make_unique<TcpClient2>(nullptr, QStringLiteral("id"), socket, 600000);
        client->stampOffers(1);
        QObject::connect(
                client.get(), &TcpClient2::readyRead, client.get(),
                [&](const Connection &c) {
                    const Offer offer{client->offerPosition(), c.getData()};
                    QMetaObject::invokeMethod(
                            &host, [&offers, offer] { offers.append(offer); },
                            Qt::QueuedConnection);
                },
                Qt::DirectConnection);
    });

    std::mt19937 random(4711);
    const auto between = [&](quint64 least, quint64 most) {
        return std::uniform_int_distribution<quint64>(least, most)(random);
    };
    const QByteArray stream = bytes(total);
    const auto end = quint64(total);
    const std::unique_ptr<QThread> device(QThread::create([&] {
        std::mt19937 sizes(42);
        for (qsizetype sent = 0; sent < stream.size();) {
            const auto size = std::min<qsizetype>(1 + qsizetype(sizes() % unsigned(atOnce)),
                                                  stream.size() - sent);
            if (!pair.device.send(stream.mid(sent, size)))
                return;
            sent += size;
        }
    }));
    device->start();

    quint64 consumed = 0;
    const auto consume = [&](quint64 size) {
        consumed += size;
        if (toPositions)
            client->discardTo(consumed);
        else
            client->discard(int(size));
    };
    Offer last{0, {}};
    while (last.end() < end) {
        QTRY_VERIFY_WITH_TIMEOUT(!offers.isEmpty(), HangGuardMs);
        for (const Offer &offer : std::exchange(offers, {})) {
            QVERIFY(offer.data
                    == QByteArrayView(stream).sliced(qsizetype(offer.position), offer.data.size()));
            QVERIFY(offer.position >= last.position);
            QVERIFY(offer.end() >= last.end());
            QVERIFY(offer.position <= consumed);
            last = offer;
            const quint64 fresh = offer.end() - consumed;
            if (fresh > 0)
                consume(between(0, 3) == 0 ? between(1, fresh) : fresh);
            else if (between(0, 9) == 0)
                client->discard(0);
        }
    }
    consume(end - consumed);

    worker.run([] {}); // until the posted cuts are made
    worker.run([&] {
        client->emitData();
        client.reset();
    });
    QCoreApplication::sendPostedEvents(&host);
    QVERIFY(!offers.isEmpty());
    QCOMPARE(offers.constLast().position, end);
    QCOMPARE(offers.constLast().data, QByteArray());
    device->wait();
    worker.quitAndWait();
}

QTEST_GUILESS_MAIN(tst_ClientCutOrder)
#include "tst_clientcutorder.moc"
