// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "memoryclient.h"

#include <QtTest/QtTest>

using tls::Session;

class tst_Tickets : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init();
    void resume_data() { addVersions(); }
    void resume();
    void areReplacedAfterAnHour_data() { addVersions(); }
    void areReplacedAfterAnHour();
    void endAfterTwoHours_data() { addVersions(); }
    void endAfterTwoHours();
    void ofOthersAreUnknown();

private:
    static void addVersions();
    bool connects(MemoryClient &client);
    void advance(std::chrono::minutes time);

    std::shared_ptr<tls::Context> context;
    std::chrono::steady_clock::time_point now = std::chrono::steady_clock::now();
};

void tst_Tickets::addVersions()
{
    QTest::addColumn<int>("version");
    QTest::addRow("TLS 1.2") << TLS1_2_VERSION;
    QTest::addRow("TLS 1.3") << TLS1_3_VERSION;
}

void tst_Tickets::init()
{
    tls::Settings settings = serverSettings();
    settings.sessionTickets = true;
    context = std::make_shared<tls::Context>(settings);
    advance(std::chrono::minutes(0));
}

void tst_Tickets::advance(std::chrono::minutes time)
{
    now += time;
    context->setTicketTime(now);
}

bool tst_Tickets::connects(MemoryClient &client)
{
    Session session(context);
    const bool done = client.connectTo(session);
    client.read(); // the tickets of TLS 1.3
    return done;
}

void tst_Tickets::resume()
{
    QFETCH(int, version);
    MemoryClient client(version);
    QVERIFY(connects(client));
    QVERIFY(!SSL_session_reused(client.handle()));
    QCOMPARE(client.tickets, 1);
    client.start(client.resumable().get());
    QVERIFY(connects(client));
    QVERIFY(SSL_session_reused(client.handle()));
}

void tst_Tickets::areReplacedAfterAnHour()
{
    QFETCH(int, version);
    MemoryClient client(version);
    QVERIFY(connects(client));
    advance(std::chrono::minutes(61));
    client.start(client.resumable().get());
    QVERIFY(connects(client));
    QVERIFY(SSL_session_reused(client.handle()));
    advance(std::chrono::minutes(61)); // the first key has gone, the new ticket is good
    client.start(client.resumable().get());
    QVERIFY(connects(client));
    QVERIFY(SSL_session_reused(client.handle()));
}

void tst_Tickets::endAfterTwoHours()
{
    QFETCH(int, version);
    MemoryClient client(version);
    QVERIFY(connects(client));
    advance(std::chrono::minutes(121));
    client.start(client.resumable().get());
    QVERIFY(connects(client));
    QVERIFY(!SSL_session_reused(client.handle()));
}

void tst_Tickets::ofOthersAreUnknown()
{
    MemoryClient client(TLS1_3_VERSION);
    QVERIFY(connects(client));
    init(); // another server
    client.start(client.resumable().get());
    QVERIFY(connects(client));
    QVERIFY(!SSL_session_reused(client.handle()));
}

QTEST_GUILESS_MAIN(tst_Tickets)
#include "tst_tickets.moc"
