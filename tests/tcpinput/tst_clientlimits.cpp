// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "tcpinput/tcpclient2.h"
#include "tests/kit/memorysocket.h"
#include "tests/tcpinput/clienttest.h"

#include <QtCore/QCoreApplication>
#include <QtTest/QTest>

using namespace clienttest;

// A client that may hold 100 bytes, of a socket that receives by itself, as one with TLS.
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

private:
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
    held = std::make_shared<HeldBytes>(std::make_shared<BufferBudget>(limits));
    socket = new MemorySocket({});
    client = std::make_unique<TcpClient2>(nullptr, QStringLiteral("id"), socket, 60000);
    client->limit(held, list);
    latestOffer = 0;
    client->offerTo([this](const QByteArray &data) {
        latestOffer = data.size();
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

// Bytes that such a socket has received may be announced at any time.
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

// Nobody announces it a second time.
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

QTEST_GUILESS_MAIN(tst_ClientLimits)
#include "tst_clientlimits.moc"
