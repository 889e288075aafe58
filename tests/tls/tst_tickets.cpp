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
    void doNotReplaceCertificates_data();
    void doNotReplaceCertificates();

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

void tst_Tickets::doNotReplaceCertificates_data()
{
    QTest::addColumn<int>("version");
    QTest::addColumn<QString>("certificate");
    QTest::addColumn<bool>("accepted");
    for (const int version : {TLS1_2_VERSION, TLS1_3_VERSION}) {
        for (const char *name : {"client", "client-foreign", "client-expired", "self-signed"})
            QTest::addRow("TLS 1.%d, %s", version - TLS1_VERSION, name)
                    << version << QString::fromLatin1(name) << (qstrcmp(name, "client") == 0);
    }
}

// A device whose certificate is refused may still have got a ticket, and may come back with it.
void tst_Tickets::doNotReplaceCertificates()
{
    QFETCH(int, version);
    QFETCH(QString, certificate);
    QFETCH(bool, accepted);
    tls::Settings settings = serverSettings();
    settings.sessionTickets = true;
    settings.base.setPeerVerifyMode(QSslSocket::VerifyPeer);
    settings.base.setCaCertificates(
            {QSslCertificate(certificateText(QStringLiteral("ca.pem")).toLatin1(), QSsl::Pem)});
    context = std::make_shared<tls::Context>(settings);
    MemoryClient client(version);
    client.show(certificate);
    QCOMPARE(connects(client), accepted);
    const auto resumed = client.resumable();
    if (!resumed)
        return;
    client.start(resumed.get());
    QCOMPARE(connects(client), accepted);
}

QTEST_GUILESS_MAIN(tst_Tickets)
#include "tst_tickets.moc"
