// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "tcpinput/receive/receivingsocket.h"
#include "tcpinput/tcpclient2.h"
#include "tests/kit/memorysocket.h"
#include "tests/tcpinput/clienttest.h"

#include <QtCore/QCoreApplication>
#include <QtTest/QTest>

#include <array>
#include <memory>

#include <sys/socket.h>
#include <unistd.h>

using namespace clienttest;

// A client that may hold 100 bytes. Its socket receives by itself, as one with TLS does.
class tst_ClientLimits : public ClientTest
{
    Q_OBJECT

private Q_SLOTS:
    void init();
    void cleanup();

    void pausesWhenFull();
    void readsNothingWhilePaused();
    void readsWhatCameMeanwhile();
    void endTakesAll();
    void offersWhatWaitsWhenOthersTakeTheRoom();

private:
    void makeClient(const Limits &limits, QTcpSocket *connected);
    void arrive(int count)
    {
        socket->arrive(QByteArray(count, 'x'));
        socket->notify();
    }
    void cut(int count)
    {
        client->cutInbuf(count);
        QCoreApplication::processEvents();
    }
    qsizetype bytesIn() const { return static_cast<qsizetype>(held->unconsumed()); }

    PausedList list;
    std::shared_ptr<HeldBytes> held;
    MemorySocket *socket = nullptr; // the client's
    std::unique_ptr<TcpClient2> client;
    qsizetype latestOffer = 0;
};

void tst_ClientLimits::init()
{
    begin();
    Limits limits;
    limits.connectionBuffer = 100;
    socket = new MemorySocket({});
    makeClient(limits, socket);
}

void tst_ClientLimits::makeClient(const Limits &limits, QTcpSocket *connected)
{
    held = std::make_shared<HeldBytes>(std::make_shared<BufferBudget>(limits));
    client = std::make_unique<TcpClient2>(nullptr, QStringLiteral("id"), connected, 60000);
    client->limit(held, list);
    latestOffer = 0;
    client->offerTo([this](const QByteArray &data) {
        latestOffer = data.size();
        held->giveBack(held->lend(data.size()), data.size());
        held->handedOver();
    });
}

void tst_ClientLimits::cleanup()
{
    client.reset();
    held.reset();
    QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
    end();
}

void tst_ClientLimits::pausesWhenFull()
{
    arrive(99);
    QVERIFY(!held->isPaused());
    arrive(1);
    QVERIFY(held->isPaused());
    QCOMPARE(latestOffer, 100);
    cut(49);
    QVERIFY(held->isPaused());
    cut(1);
    QVERIFY(!held->isPaused());
}

// A socket that receives by itself may announce its bytes at any time.
void tst_ClientLimits::readsNothingWhilePaused()
{
    arrive(120);
    QCOMPARE(bytesIn(), 120);
    for (int i = 0; i < 3; ++i) {
        arrive(50);
        QCOMPARE(bytesIn(), 120);
        QCOMPARE(socket->bytesAvailable(), 50 * (i + 1));
    }
    QCOMPARE(latestOffer, 120);
}

// Nobody announces these bytes a second time.
void tst_ClientLimits::readsWhatCameMeanwhile()
{
    arrive(120);
    arrive(30);
    cut(120);
    QVERIFY(!held->isPaused());
    QCOMPARE(bytesIn(), 30);
    QCOMPARE(socket->bytesAvailable(), 0);
}

void tst_ClientLimits::endTakesAll()
{
    arrive(120);
    arrive(30);
    socket->arrive(QByteArray(500, 'x'));
    socket->arriveEnd();
    client->mdisconnected();
    QCOMPARE(latestOffer, 650);
}

// Otherwise all connections could wait for each other: the host cannot consume bytes that it does
// not know.
void tst_ClientLimits::offersWhatWaitsWhenOthersTakeTheRoom()
{
    constexpr qint64 Total = 1 << 20;
    Limits limits;
    limits.totalBuffer = Total;
    std::array<int, 2> ends{};
    QCOMPARE(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data()), 0);
    makeClient(limits, new ReceivingSocket(ends[0], {}));
    const auto deliver = [&ends] {
        QCOMPARE(::write(ends[1], "12345", 5), ssize_t(5));
        QCoreApplication::processEvents();
    };
    deliver();
    QCOMPARE(latestOffer, 5);
    deliver(); // too soon for an offer of its own
    QCOMPARE(latestOffer, 5);
    QCOMPARE(bytesIn(), 10);
    held->total().add(Total);
    deliver();
    QVERIFY(held->isPaused());
    QCOMPARE(latestOffer, 10);
    QCOMPARE(bytesIn(), 10);
    held->total().add(-Total);
    ::close(ends[1]);
}

QTEST_GUILESS_MAIN(tst_ClientLimits)
#include "tst_clientlimits.moc"
