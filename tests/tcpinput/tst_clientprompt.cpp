// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "tests/kit/movableclock.h"
#include "tests/tcpinput/clienttest.h"
#include "tests/tcpinput/connectedclient.h"
#include "tests/tcpinput/readingtest.h"

#include <QtTest/QTest>

using namespace clienttest;
using namespace readingtest;

// With a prompt list, bytes that come within 200 ms of an offer wait only for the end of this time.
class tst_ClientPrompt : public ClientTest
{
    Q_OBJECT

private Q_SLOTS:
    void init() { begin(); }
    void cleanup() { end(); }

    void offersWhatCameWithinTheInterval_data();
    void offersWhatCameWithinTheInterval();
    void withoutListItWaits();
    void unchangedBufferIsNotOfferedAgain();
    void offerInBetweenCounts();
    void intervalOfALaterOfferCounts();
    void remainderThatGrew();
    void whatTheHostHasCutIsNotOffered();
    void beginsAnInterval();
    void endTakesWhatWaits();
    void clientsThatGo();

private:
    // Made before the clients, and outlives them.
    PromptList list;

    // Makes the offer "first". The client is then 100 ms into the interval.
    void deliverFirst(ConnectedClient &connection)
    {
        connection.client->setPromptList(&list);
        QVERIFY(connection.deliver("first"));
        QCOMPARE(connection.takeOffers(), QList<QByteArray>({"first"}));
        MovableClock::advance(100);
    }
    // Goes to the latest moment at which bytes that wait for the end of the interval are offered.
    void endInterval()
    {
        MovableClock::advance(101 + PromptList::MostDelay.count());
        list.look();
    }
};

void tst_ClientPrompt::offersWhatCameWithinTheInterval_data()
{
    QTest::addColumn<int>("size");
    for (const int size : {1, 20, 21, 80, 81, 1000})
        QTest::addRow("%d", size) << size;
}

void tst_ClientPrompt::offersWhatCameWithinTheInterval()
{
    QFETCH(int, size);
    const QByteArray late(size, 'x');
    ConnectedClient connection;
    deliverFirst(connection);
    QVERIFY(connection.deliver(late));
    MovableClock::advance(100); // 200 ms after the offer, not yet more
    list.look();
    QCOMPARE(connection.takeOffers(), QList<QByteArray>());
    MovableClock::advance(1 + PromptList::MostDelay.count());
    list.look();
    QCOMPARE(connection.takeOffers(), QList<QByteArray>({"first" + late}));
    EventLog::take();
}

void tst_ClientPrompt::withoutListItWaits()
{
    ConnectedClient connection;
    deliverFirst(connection);
    connection.client->setPromptList(nullptr);
    QVERIFY(connection.deliver("late"));
    endInterval();
    QCOMPARE(connection.takeOffers(), QList<QByteArray>());
    EventLog::take();
}

void tst_ClientPrompt::unchangedBufferIsNotOfferedAgain()
{
    ConnectedClient connection;
    deliverFirst(connection);
    QVERIFY(connection.deliver("late"));
    endInterval();
    QCOMPARE(connection.takeOffers(), QList<QByteArray>({"firstlate"}));
    for (int more = 0; more < 3; ++more) {
        endInterval();
        endInterval();
    }
    QCOMPARE(connection.takeOffers(), QList<QByteArray>());
    EventLog::take();
}

// The offer of a cut's remainder also has the bytes that waited.
void tst_ClientPrompt::offerInBetweenCounts()
{
    ConnectedClient connection;
    deliverFirst(connection);
    const QByteArray late(30, 'x');
    QVERIFY(connection.deliver(late));
    connection.client->cutInbuf(5);
    QCOMPARE(connection.takeOffers(), QList<QByteArray>({late}));
    endInterval();
    endInterval();
    QCOMPARE(connection.takeOffers(), QList<QByteArray>());
    EventLog::take();
}

void tst_ClientPrompt::intervalOfALaterOfferCounts()
{
    ConnectedClient connection;
    deliverFirst(connection);
    const QByteArray late(30, 'x');
    QVERIFY(connection.deliver(late));
    connection.client->cutInbuf(5); // offers: the interval begins anew
    connection.takeOffers();
    QVERIFY(connection.deliver("later"));
    endInterval(); // the first offer's interval
    QCOMPARE(connection.takeOffers(), QList<QByteArray>());
    endInterval();
    QCOMPARE(connection.takeOffers(), QList<QByteArray>({late + "later"}));
    EventLog::take();
}

void tst_ClientPrompt::remainderThatGrew()
{
    ConnectedClient connection;
    deliverFirst(connection);
    QVERIFY(connection.deliver("late"));
    connection.client->cutInbuf(5); // leaves 4 bytes, too few to be offered at once
    QCOMPARE(connection.takeOffers(), QList<QByteArray>());
    endInterval();
    QCOMPARE(connection.takeOffers(), QList<QByteArray>({"late"}));
    EventLog::take();
}

void tst_ClientPrompt::whatTheHostHasCutIsNotOffered()
{
    ConnectedClient connection;
    deliverFirst(connection);
    QVERIFY(connection.deliver("late"));
    connection.client->cutInbuf(100);
    endInterval();
    QCOMPARE(connection.takeOffers(), QList<QByteArray>());
    EventLog::take();
}

void tst_ClientPrompt::beginsAnInterval()
{
    ConnectedClient connection;
    deliverFirst(connection);
    QVERIFY(connection.deliver("2"));
    endInterval();
    QCOMPARE(connection.takeOffers(), QList<QByteArray>({"first2"}));
    QVERIFY(connection.deliver("3"));
    QCOMPARE(connection.takeOffers(), QList<QByteArray>());
    MovableClock::advance(100);
    endInterval();
    QCOMPARE(connection.takeOffers(), QList<QByteArray>({"first23"}));
    EventLog::take();
}

void tst_ClientPrompt::endTakesWhatWaits()
{
    ConnectedClient connection;
    deliverFirst(connection);
    QVERIFY(connection.deliver("late"));
    connection.client->mdisconnected();
    QCOMPARE(connection.takeOffers(), QList<QByteArray>({"firstlate"}));
    endInterval();
    QCOMPARE(connection.takeOffers(), QList<QByteArray>());
    EventLog::take();
}

void tst_ClientPrompt::clientsThatGo()
{
    {
        ConnectedClient connection;
        deliverFirst(connection);
        QVERIFY(connection.deliver("late"));
    }
    endInterval();
    EventLog::take();
}

QTEST_GUILESS_MAIN(tst_ClientPrompt)
#include "tst_clientprompt.moc"
