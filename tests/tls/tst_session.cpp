// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "memoryclient.h"

#include "tls/errors.h"

#include <QtNetwork/QSslDiffieHellmanParameters>
#include <QtTest/QtTest>

#include <openssl/err.h>

using namespace Qt::StringLiterals;
using tls::Session;

namespace {

// All plain bytes that are there.
QByteArray readAll(Session &session)
{
    QByteArray all;
    QByteArray part(1000, Qt::Uninitialized);
    while (true) {
        const qsizetype size = session.read(part.data(), part.size());
        all.append(part.constData(), size);
        if (size == 0 && (!session.hasRest() || session.isClosed() || session.isBroken()))
            return all;
    }
}

} // namespace

class tst_Session : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void init();
    void carriesBytes_data();
    void carriesBytes();
    void takesBytesOneByOne_data();
    void takesBytesOneByOne();
    void keepsWhatComesBehindTheHandshake();
    void sendsNoTickets_data();
    void sendsNoTickets();
    void tellsTheEnd();
    void breaksAtGarbage();
    void refusesRenegotiation();
    void countsChangesOfKeys();
    void dataBetweenChangesIsFine();
    void ignoresErrorsOfOthers();
    void tellsWhyItCannot_data();
    void tellsWhyItCannot();
    void asksForCertificates();
    void agreesWithDiffieHellman_data();
    void agreesWithDiffieHellman();

private:
    void addVersions() const;

    std::shared_ptr<const tls::Context> context;
};

void tst_Session::initTestCase()
{
    QVERIFY(QSslSocket::supportsSsl());
}

void tst_Session::init()
{
    context = std::make_shared<const tls::Context>(serverSettings());
    QCOMPARE(context->failure(), QString());
}

void tst_Session::addVersions() const
{
    QTest::addColumn<int>("version");
    QTest::addRow("TLS 1.2") << TLS1_2_VERSION;
    QTest::addRow("TLS 1.3") << TLS1_3_VERSION;
}

void tst_Session::carriesBytes_data()
{
    addVersions();
}

void tst_Session::carriesBytes()
{
    QFETCH(int, version);
    MemoryClient client(version);
    Session session(context);
    QVERIFY(client.connectTo(session));
    const QByteArray sent(100000, 'x');
    client.write(sent);
    const QByteArray encrypted = client.takeOutput();
    session.feed(encrypted);
    QCOMPARE(readAll(session), sent);
    QVERIFY(!session.hasRest());
    QVERIFY(!session.isClosed() && !session.isBroken());
}

void tst_Session::takesBytesOneByOne_data()
{
    addVersions();
}

void tst_Session::takesBytesOneByOne()
{
    QFETCH(int, version);
    MemoryClient client(version);
    Session session(context);
    auto step = Session::Step::Unfinished;
    while (step == Session::Step::Unfinished) {
        client.handshake();
        const QByteArray said = client.takeOutput();
        QVERIFY(!said.isEmpty());
        for (const char byte : said) {
            QCOMPARE(step, Session::Step::Unfinished);
            session.feed(QByteArrayView(&byte, 1));
            step = session.handshake();
            session.keepRest();
        }
        client.answer(session);
    }
    QCOMPARE(step, Session::Step::Done);
    QVERIFY(client.handshake());
    client.write("hello");
    QByteArray all;
    const QByteArray encrypted = client.takeOutput();
    for (const char byte : encrypted) {
        session.feed(QByteArrayView(&byte, 1));
        all += readAll(session);
        session.keepRest();
    }
    QCOMPARE(all, "hello");
}

void tst_Session::keepsWhatComesBehindTheHandshake()
{
    MemoryClient client(TLS1_3_VERSION);
    Session session(context);
    client.handshake();
    {
        const QByteArray hello = client.takeOutput();
        session.feed(hello);
        QCOMPARE(session.handshake(), Session::Step::Unfinished);
        session.keepRest();
    }
    client.answer(session);
    QVERIFY(client.handshake());
    client.write("first");
    client.write("second");
    {
        QByteArray flight = client.takeOutput();
        session.feed(flight);
        QCOMPARE(session.handshake(), Session::Step::Done);
        session.keepRest();
        flight.fill('?'); // the bytes are the session's now
    }
    QVERIFY(session.hasRest());
    QCOMPARE(readAll(session), "firstsecond");
}

void tst_Session::sendsNoTickets_data()
{
    addVersions();
}

void tst_Session::sendsNoTickets()
{
    QFETCH(int, version);
    MemoryClient client(version);
    Session session(context);
    QVERIFY(client.connectTo(session));
    client.read();
    QCOMPARE(client.tickets, 0);
    QVERIFY(!SSL_SESSION_has_ticket(SSL_get_session(client.handle())));
}

void tst_Session::tellsTheEnd()
{
    MemoryClient client(TLS1_3_VERSION);
    Session session(context);
    QVERIFY(client.connectTo(session));
    client.write("last");
    SSL_shutdown(client.handle());
    const QByteArray said = client.takeOutput();
    session.feed(said);
    QCOMPARE(readAll(session), "last");
    QVERIFY(session.isClosed());
    session.close();
    client.answer(session);
    QCOMPARE(client.read(), SSL_ERROR_ZERO_RETURN);
}

void tst_Session::breaksAtGarbage()
{
    MemoryClient client(TLS1_2_VERSION);
    Session session(context);
    QVERIFY(client.connectTo(session));
    client.write("good");
    const QByteArray said = client.takeOutput() + "this is no record at all";
    session.feed(said);
    QCOMPARE(readAll(session), "good");
    QVERIFY(session.isBroken());
    QCOMPARE(ERR_peek_error(), 0UL);
}

void tst_Session::refusesRenegotiation()
{
    MemoryClient client(TLS1_2_VERSION);
    Session session(context);
    QVERIFY(client.connectTo(session));
    SSL_renegotiate(client.handle());
    client.handshake();
    const QByteArray said = client.takeOutput();
    QVERIFY(!said.isEmpty());
    session.feed(said);
    QCOMPARE(readAll(session), QByteArray());
    QVERIFY(!session.isBroken());
    client.answer(session);
    QCOMPARE(client.read(), SSL_ERROR_SSL); // told that there is none
}

void tst_Session::countsChangesOfKeys()
{
    constexpr int Many = 1100;
    MemoryClient client(TLS1_3_VERSION);
    Session session(context);
    QVERIFY(client.connectTo(session));
    int changes = 0;
    for (; changes < Many && !session.isBroken(); ++changes) {
        SSL_key_update(client.handle(), SSL_KEY_UPDATE_NOT_REQUESTED);
        client.handshake();
        const QByteArray said = client.takeOutput();
        session.feed(said);
        QCOMPARE(readAll(session), QByteArray());
        session.keepRest();
    }
    QVERIFY(session.isBroken());
    QVERIFY(changes > 900);
}

void tst_Session::dataBetweenChangesIsFine()
{
    constexpr int Many = 1100;
    MemoryClient client(TLS1_3_VERSION);
    Session session(context);
    QVERIFY(client.connectTo(session));
    for (int i = 0; i < Many; ++i) {
        SSL_key_update(client.handle(), SSL_KEY_UPDATE_REQUESTED);
        client.handshake();
        client.write("x");
        const QByteArray said = client.takeOutput();
        session.feed(said);
        QCOMPARE(readAll(session), "x");
        session.keepRest();
        client.answer(session); // it changes its keys, too
        client.read();
    }
}

void tst_Session::ignoresErrorsOfOthers()
{
    ERR_raise(ERR_LIB_SSL, SSL_R_BAD_LENGTH); // another connection of the thread has failed
    MemoryClient client(TLS1_3_VERSION);
    Session session(context);
    QVERIFY(client.connectTo(session));
    client.write("hello");
    const QByteArray said = client.takeOutput();
    ERR_raise(ERR_LIB_SSL, SSL_R_BAD_LENGTH);
    session.feed(said);
    QCOMPARE(readAll(session), "hello");
    QVERIFY(!session.isBroken());
}

void tst_Session::tellsWhyItCannot_data()
{
    QTest::addColumn<bool>("certificate");
    QTest::addColumn<bool>("key");
    QTest::addColumn<QString>("text"); // a part of what is said
    QTest::addRow("no key") << true << false << u"Cannot provide a certificate with no key"_s;
    QTest::addRow("neither") << false << false << u"no suitable signature algorithm"_s;
}

void tst_Session::tellsWhyItCannot()
{
    QFETCH(bool, certificate);
    QFETCH(bool, key);
    QFETCH(QString, text);
    tls::Settings settings = serverSettings();
    if (!certificate)
        settings.base.setLocalCertificate(QSslCertificate());
    if (!key)
        settings.base.setPrivateKey(QSslKey());
    context = std::make_shared<const tls::Context>(settings);
    MemoryClient client(TLS1_3_VERSION);
    Session session(context);
    QVERIFY(!client.connectTo(session));
    const tls::HandshakeReport report = session.takeReport();
    QVERIFY2(report.failure.contains(text), qPrintable(report.failure));
    QVERIFY(report.errors.isEmpty());
}

void tst_Session::asksForCertificates()
{
    tls::Settings settings = serverSettings();
    settings.base.setPeerVerifyMode(QSslSocket::VerifyPeer);
    context = std::make_shared<const tls::Context>(settings);
    MemoryClient client(TLS1_2_VERSION);
    Session session(context);
    QVERIFY(!client.connectTo(session));
    const tls::HandshakeReport report = session.takeReport();
    QCOMPARE(report.errors, QList<QSslError>{QSslError(QSslError::NoPeerCertificate)});
    QCOMPARE(report.peerErrors, report.errors);
    QCOMPARE(report.failure, report.errors.first().errorString());
    QVERIFY(!report.interruption);
}

void tst_Session::agreesWithDiffieHellman_data()
{
    QTest::addColumn<QByteArray>("parameters");
    QTest::addColumn<bool>("agrees");
    // Group 14 of RFC 3526, which Qt 6.8 has by default.
    const auto group14 = QByteArrayLiteral(
            "MIIBCAKCAQEA///////////JD9qiIWjCNMTGYouA3BzRKQJOCIpnzHQCC76mOxObIlFKCHmONATd75UZs806Q"
            "xswKwpt8l8UN0/hNW1tUcJF5IW1dmJefsb0TELppjftawv/XLb0Brft7jhr+1qJn6WunyQRfEsf5kkoZlHs5F"
            "s9wgB8uKFjvwWY2kg2HFXTmmkWP6j9JM9fg2VdI9yjrZYcYvNWIIVSu57VKQdwlpZtZww1Tkq8mATxdGwIyhg"
            "hfDKQXkYuNs474553LBgOhgObJ4Oi7Aeij7XFXfBvTFLJ3ivL9pVYFxg5lUl86pVq5RXSJhiY+gUQFXKOWoqs"
            "qmj//////////wIBAg==");
    QTest::newRow("a group of 2048 bits") << QByteArray::fromBase64(group14) << true;
    QTest::newRow("none") << QByteArray() << false;
}

void tst_Session::agreesWithDiffieHellman()
{
    QFETCH(QByteArray, parameters);
    QFETCH(bool, agrees);
    tls::Settings settings = serverSettings();
    settings.base.setDiffieHellmanParameters(
            QSslDiffieHellmanParameters::fromEncoded(parameters, QSsl::Der));
    context = std::make_shared<const tls::Context>(settings);
    QCOMPARE(context->failure(), QString());
    MemoryClient client(TLS1_2_VERSION);
    SSL_set_cipher_list(client.handle(), "DHE-RSA-AES256-GCM-SHA384");
    Session session(context);
    QCOMPARE(client.connectTo(session), agrees);
}

QTEST_GUILESS_MAIN(tst_Session)
#include "tst_session.moc"
