// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "tests/kit/movableclock.h"
#include "tests/tcpinput/clienttest.h"
#include "tests/tcpinput/connectedclient.h"
#include "tests/tcpinput/cuttingtest.h"

#include <QtCore/QCoreApplication>
#include <QtTest/QTest>

#include <limits>

using namespace clienttest;
using namespace cuttingtest;

// Cuts that a host asks for in its own thread.
class tst_ClientCutting : public ClientTest
{
    Q_OBJECT

private Q_SLOTS:
    void init() { begin(); }
    void cleanup() { end(); }

    void cuts_data();
    void cuts();
    void cutsToPositions_data();
    void cutsToPositions();
    void cutsInTheClientsThreadArePosted();
    void cutAtOnceKeepsOffers();
    void cutAfterTheEnd();
};

void tst_ClientCutting::cuts_data()
{
    QTest::addColumn<int>("size");
    QTest::addColumn<int>("len");
    QTest::addColumn<bool>("posted");
    QTest::addColumn<int>("left");
    const auto row = [](int size, int len, bool posted, int left) {
        QTest::addRow("%d of %d", len, size) << size << len << posted << left;
    };
    // A cut that leaves no more than 20 bytes changes nothing for the client's thread.
    row(30, 10, false, 20);
    row(30, 29, false, 1);
    row(30, 30, false, 0);
    row(20, 0, false, 20);
    row(20, -1, false, 20);
    row(1, std::numeric_limits<int>::min(), false, 1);
    // A remainder of more than 20 bytes is offered again.
    row(30, 9, true, 21);
    row(21, 0, true, 21);
    row(21, -1, true, 21);
    row(60000, 10, true, 59990);
    // A cut beyond the buffer also cuts what comes in before it is carried out.
    row(30, 31, true, 0);
    row(30, std::numeric_limits<int>::max(), true, 0);
}

void tst_ClientCutting::cuts()
{
    QFETCH(int, size);
    QFETCH(int, len);
    QFETCH(bool, posted);
    QFETCH(int, left);
    ConnectedClient connection;
    QVERIFY(connection.deliver(bytes(size)));
    const PostedCalls calls(connection.client.get());

    inAnotherThread([&] { connection.client->discard(len); });

    QCOMPARE(heldBy(connection), bytes(size).last(posted ? size : left));
    QCoreApplication::sendPostedEvents();
    QCOMPARE(calls.count, posted ? 1 : 0);
    const bool offered = posted && left > 20;
    QCOMPARE(connection.takeOffers(),
             offered ? QList<QByteArray>({bytes(size).last(left)}) : QList<QByteArray>());
    QCOMPARE(heldBy(connection), bytes(size).last(left));
    QVERIFY(connection.noLockHeld);
}

void tst_ClientCutting::cutsToPositions_data()
{
    QTest::addColumn<int>("size");
    QTest::addColumn<quint64>("position");
    QTest::addColumn<bool>("posted");
    QTest::addColumn<int>("left");
    // Ten bytes have been cut before.
    const auto row = [](int size, quint64 position, bool posted, int left) {
        QTest::addRow("to %llu of 10 + %d", qulonglong(position), size)
                << size << position << posted << left;
    };
    row(30, 20, false, 20);
    row(30, 40, false, 0);
    row(30, 19, true, 21);
    row(30, 41, true, 0);
    row(30, std::numeric_limits<quint64>::max(), true, 0);
    // These bytes have been cut already. Nothing is posted, even if much is left.
    row(30, 10, false, 30);
    row(30, 0, false, 30);
    row(20, 10, false, 20);
}

void tst_ClientCutting::cutsToPositions()
{
    QFETCH(int, size);
    QFETCH(quint64, position);
    QFETCH(bool, posted);
    QFETCH(int, left);
    ConnectedClient connection;
    connection.client->stampOffers(1);
    QVERIFY(connection.deliver("0123456789" + bytes(size)));
    connection.client->cutInbuf(10);
    const PostedCalls calls(connection.client.get());

    inAnotherThread([&] { connection.client->discardTo(position); });

    QCOMPARE(heldBy(connection), bytes(size).last(posted ? size : left));
    QCoreApplication::sendPostedEvents();
    QCOMPARE(calls.count, posted ? 1 : 0);
    const bool offered = posted && left > 20;
    QCOMPARE(connection.takeOffers(),
             offered ? QList<QByteArray>({bytes(size).last(left)}) : QList<QByteArray>());
    QCOMPARE(heldBy(connection), bytes(size).last(left));
    QCOMPARE(connection.client->offerPosition(), quint64(10 + size - left));
}

void tst_ClientCutting::cutsInTheClientsThreadArePosted()
{
    ConnectedClient connection;
    connection.client->stampOffers(1);
    QVERIFY(connection.deliver(bytes(30)));
    const PostedCalls calls(connection.client.get());

    connection.client->discard(10);
    connection.client->discardTo(15);

    QCOMPARE(heldBy(connection), bytes(30));
    QCoreApplication::sendPostedEvents();
    QCOMPARE(calls.count, 2);
    QCOMPARE(heldBy(connection), bytes(30).mid(15));
}

void tst_ClientCutting::cutAtOnceKeepsOffers()
{
    ConnectedClient connection;
    QVERIFY(connection.deliver(bytes(60000)));
    const QList<QByteArray> offers = connection.takeOffers();
    inAnotherThread([&] { connection.client->discard(59990); });
    QCOMPARE(offers, QList<QByteArray>({bytes(60000)}));

    MovableClock::advance(201);
    QVERIFY(connection.deliver("!"));
    QCOMPARE(connection.takeOffers(), QList<QByteArray>({bytes(60000).last(10) + '!'}));
}

void tst_ClientCutting::cutAfterTheEnd()
{
    ConnectedClient connection;
    connection.client->stampOffers(1);
    QVERIFY(connection.deliver(bytes(100)));
    connection.client->mdisconnected();
    EventLog::take();

    inAnotherThread([&] {
        for (int len : {-1, 0, 10, 100, 1000})
            connection.client->discard(len);
        for (quint64 position : {0U, 10U, 100U, 1000U})
            connection.client->discardTo(position);
    });
    QCoreApplication::sendPostedEvents();

    QCOMPARE(EventLog::take(), QStringList());
}

QTEST_GUILESS_MAIN(tst_ClientCutting)
#include "tst_clientcutting.moc"
