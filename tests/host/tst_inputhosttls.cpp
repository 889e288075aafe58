// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "host/exitcodes.h"
#include "host/loglimit.h"
#include "tests/host/inputhosttest.h"
#include "tests/kit/certificatemaker.h"

#include <QtCore/QProcess>
#include <QtTest/QtTest>

using namespace host;
using namespace inputhosttest;
using namespace Qt::StringLiterals;

// The program with TLS: what it adds to the configuration, refuses, and warns of.
class tst_InputHostTls : public InputHostTest
{
    Q_OBJECT

private Q_SLOTS:
    void refusesSystemAuthorities();
    void keepsTheOldConfiguration();
    void servesAnyKeyAndChain();
    void configurationDecides();
    void warnsOfTheCertificate();
    void newCertificatesCloseNothing();
    void namesWhoseHandshakeFails();
    void limitsLinesOfFailedHandshakes();

private:
    static const QByteArray BrokenHello;

    static qsizetype failures(Host &host) { return host.log().count(": SSL Socket error: "); }
    // openssl's client, which stays connected.
    static void connect(QProcess &client, const Host &host)
    {
        client.start(u"openssl"_s,
                     {u"s_client"_s, u"-quiet"_s, u"-no_ign_eof"_s, u"-connect"_s,
                      u"%1:%2"_s.arg(testAddress().toString()).arg(host.port)});
    }
    // The certificate that a new connection gets.
    static QByteArray shownBy(const Host &host)
    {
        QProcess client;
        client.start(u"openssl"_s,
                     {u"s_client"_s, u"-connect"_s,
                      u"%1:%2"_s.arg(testAddress().toString()).arg(host.port)});
        client.closeWriteChannel();
        client.waitForFinished(HangGuardMs);
        return client.readAllStandardOutput();
    }
    // A server with an EC key, whose certificate's file holds the chain.
    QJsonObject server() const
    {
        return {{u"CertFile"_s, file(u"server.pem"_s, made::pem(leaf) + made::pem(authority))},
                {u"KeyFile"_s, file(u"server.key"_s, made::pkcs8(key))},
                {u"verifyPeer"_s, false}};
    }
    static QStringList with(const QJsonObject &ssl)
    {
        return {u"--set"_s,
                u"ssl="_s + QString::fromUtf8(QJsonDocument(ssl).toJson(QJsonDocument::Compact))};
    }

    const made::Key key = made::ecKey();
    const made::Key authorityKey = made::ecKey();
    const made::Certificate authority =
            made::certificate("authority", authorityKey, {authorityKey, nullptr}, true);
    const made::Certificate leaf = made::certificate("localhost", key, {authorityKey, &authority});
};

void tst_InputHostTls::refusesSystemAuthorities()
{
    Host host;
    host.run(host.listenArguments() + with({}));
    QCOMPARE(host.finish(), int(ExitBadConfiguration));
    QVERIFY2(host.log().contains("error: ") && host.log().contains("systemCAs"),
             host.log().constData());

    QJsonObject said = server();
    said.insert(u"verifyPeer"_s, true);
    said.insert(u"systemCAs"_s, true);
    Host other;
    other.start(with(said));
    QCOMPARE(other.stop(), int(ExitOk));
}

void tst_InputHostTls::keepsTheOldConfiguration()
{
    Host host;
    host.run({u"--config"_s, writeConfig(listenConfig(host.port))});
    QTRY_VERIFY_WITH_TIMEOUT(host.log().contains("Listening on "), HangGuardMs);
    writeConfig(listenConfig(host.port, R"(, "ssl": {})"));
    host.signal(SIGHUP);
    QTRY_VERIFY_WITH_TIMEOUT(host.log().contains("Configuration not changed"), HangGuardMs);
    QVERIFY(host.log().contains("systemCAs"));
    Device device(host);
    device.send("a\n");
    QTRY_COMPARE_WITH_TIMEOUT(host.lines().size(), 1, HangGuardMs);
    QCOMPARE(host.stop(), int(ExitOk));
}

void tst_InputHostTls::servesAnyKeyAndChain()
{
    Host host;
    host.start(with(server()));
    QProcess client;
    client.start(u"openssl"_s,
                 {u"s_client"_s, u"-connect"_s,
                  u"%1:%2"_s.arg(testAddress().toString()).arg(host.port), u"-showcerts"_s});
    client.closeWriteChannel();
    QVERIFY(client.waitForFinished(HangGuardMs));
    const QByteArray said = client.readAllStandardOutput();
    QVERIFY2(said.contains(made::pem(leaf)), said.constData());
    QVERIFY2(said.contains(made::pem(authority)), said.constData());
    QVERIFY2(!host.log().contains("Certificate "), host.log().constData());
    QCOMPARE(host.stop(), int(ExitOk));
}

void tst_InputHostTls::configurationDecides()
{
    QJsonObject rsa = server();
    rsa.insert(u"KeyAlgorithm"_s, u"rsa"_s);
    Host host;
    host.run(host.listenArguments() + with(rsa));
    QCOMPARE(host.finish(), int(ExitStartFailed));
    QVERIFY2(host.log().contains("ssl.KeyFile is "), host.log().constData());

    QJsonObject alone = server();
    alone.insert(u"CertFile"_s,
                 file(u"wrong.pem"_s, made::pem(leaf) + made::pem(leaf) + made::pem(leaf)));
    alone.insert(u"Chain"_s, false);
    Host other;
    other.start(with(alone));
    QVERIFY2(!other.log().contains("Certificate "), other.log().constData());
    QCOMPARE(other.stop(), int(ExitOk));
}

void tst_InputHostTls::warnsOfTheCertificate()
{
    const made::Key otherKey = made::ecKey();
    const made::Certificate old =
            made::certificate("old", key, {authorityKey, &authority}, false, -100);
    QJsonObject ssl = server();
    ssl.insert(u"CertFile"_s, file(u"old.pem"_s, made::pem(old)));
    ssl.insert(u"KeyFile"_s, file(u"other.key"_s, made::pkcs8(otherKey)));
    ssl.insert(u"ChainFile"_s, file(u"chain.pem"_s, made::pem(leaf)));
    Host host;
    host.start(with(ssl));
    QCOMPARE(host.log().count("\nwarning: ") + host.log().startsWith("warning: "), 3);
    QVERIFY2(host.log().contains("Certificate old has expired on "), host.log().constData());
    QVERIFY2(host.log().contains("Certificate old does not match the private key"),
             host.log().constData());
    QVERIFY2(host.log().contains("Certificate old has an issuer that is not in its chain"),
             host.log().constData());
    QCOMPARE(host.stop(), int(ExitOk));
}

void tst_InputHostTls::newCertificatesCloseNothing()
{
    Host host;
    host.start(with(server()));
    QProcess client;
    connect(client, host);
    client.write("before\n");
    QTRY_COMPARE_WITH_TIMEOUT(host.lines().size(), 1, HangGuardMs);

    const made::Key newKey = made::rsaKey();
    const made::Certificate renewed =
            made::certificate("localhost", newKey, {authorityKey, &authority});
    file(u"server.pem"_s, made::pem(renewed));
    host.signal(SIGHUP); // the key is still the old one
    QTRY_VERIFY_WITH_TIMEOUT(host.log().contains("Certificates not changed"), HangGuardMs);
    QVERIFY2(host.log().contains("New certificates are not used: "), host.log().constData());
    QVERIFY(shownBy(host).contains(made::pem(leaf)));

    file(u"server.key"_s, made::pkcs8(newKey));
    host.signal(SIGHUP);
    QTRY_VERIFY_WITH_TIMEOUT(host.log().contains("New certificates are in use"), HangGuardMs);
    QVERIFY(shownBy(host).contains(made::pem(renewed)));
    client.write("after\n");
    QTRY_COMPARE_WITH_TIMEOUT(host.lines().size(), 2, HangGuardMs);
    QVERIFY(!host.log().contains("Restarting"));

    host.signal(SIGHUP); // nothing has changed
    QTRY_VERIFY_WITH_TIMEOUT(host.log().contains("Restarting with a new configuration"),
                             HangGuardMs);
    client.kill();
    client.waitForFinished(HangGuardMs);
    QCOMPARE(host.stop(), int(ExitOk));
}

const QByteArray tst_InputHostTls::BrokenHello("\x16\x03\x01\x00\x05hello", 10);

void tst_InputHostTls::namesWhoseHandshakeFails()
{
    for (const bool names : {true, false}) {
        Host host;
        host.start(with(server()) + (names ? QStringList() : words("--set logPeers=false")));
        Device device(host);
        const QByteArray end = ", from " + device.socket.localAddress().toString().toLatin1() + ':'
                + QByteArray::number(device.socket.localPort()) + '\n';
        device.send(BrokenHello);
        QTRY_COMPARE_WITH_TIMEOUT(failures(host), 1, HangGuardMs);
        QCOMPARE(host.stop(), int(ExitOk));
        QCOMPARE(host.log().contains(end), names);
    }
}

// A minute has room for so many lines of one kind. The others are counted, at the latest at the
// end.
void tst_InputHostTls::limitsLinesOfFailedHandshakes()
{
    constexpr int Peers = LogLimit::MostOfAKind + 100;
    Host host;
    host.start(with(server()) + words("--set threadpoolSize=1"));
    QElapsedTimer clock;
    clock.start();
    for (int n = 0; n < Peers; ++n) {
        Device device(host);
        device.send(BrokenHello);
        QVERIFY(device.socket.waitForDisconnected(HangGuardMs)); // the server has closed it
    }
    // One thread carries out all handshakes: behind this one, all others have been told.
    QProcess client;
    connect(client, host);
    client.write("good\n");
    QTRY_COMPARE_WITH_TIMEOUT(host.lines().size(), 1, HangGuardMs);
    client.kill();
    client.waitForFinished(HangGuardMs);
    QCOMPARE(host.stop(), int(ExitOk));
    const auto minutes = 1 + clock.elapsed() / 60000;
    const QRegularExpression more(u": ([0-9]+) more lines like this one within a minute"_s);
    qsizetype shown = 0;
    qsizetype counted = 0;
    const auto lines = QString::fromUtf8(host.log()).split(u'\n').filter(u"SSL Socket error: "_s);
    for (const QString &line : lines) {
        if (const auto match = more.match(line); match.hasMatch())
            counted += match.captured(1).toInt();
        else
            ++shown;
    }
    QVERIFY2(shown <= LogLimit::MostOfAKind * minutes, qPrintable(QString::number(shown)));
    QCOMPARE(shown + counted, Peers);
}

QTEST_GUILESS_MAIN(tst_InputHostTls)
#include "tst_inputhosttls.moc"
