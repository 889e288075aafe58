// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "tests/kit/play.h"
#include "tests/kit/tlsdevice.h"
#include "tests/ssl/extensionstest.h"
#include "tests/tcpinput/plugintest.h"

#include <QtCore/QProcess>

using namespace plugintest;
using ssltest::ExtensionsTest;
using ssltest::Identity;

// Handshakes of a plugin with other identities than an RSA key and one certificate.
class tst_TlsIdentity : public ExtensionsTest
{
    Q_OBJECT

private Q_SLOTS:
    void init() { begin(); }
    void cleanup() { capture.reset(); }

    void keys_data();
    void keys();
    void passPhrase();
    void chain_data();
    void chain();
    void openSslShowsTheChain();
    void ciphers();
    void groups_data();
    void groups();
    void ownAuthorityAlone_data();
    void ownAuthorityAlone();
    void refusesToStart_data();
    void refusesToStart();

private:
    // The "ssl" object of this server.
    QJsonObject serverOf(const Identity &identity, const QByteArray &key) const
    {
        return {{u"CertFile"_s, file(u"server.pem"_s, made::pem(identity.certificate))},
                {u"KeyFile"_s, file(u"server.key"_s, key)},
                {u"KeyAlgorithm"_s, u"auto"_s},
                {u"verifyPeer"_s, false}};
    }
    static bool serves(Plugin &plugin, TlsDevice &device)
    {
        return sendOverTls(device, plugin, "hello") && plugin.recordOf("hello");
    }

    const Identity ec{made::ecKey()};
};

void tst_TlsIdentity::keys_data()
{
    QTest::addColumn<QByteArray>("kind");
    QTest::addColumn<int>("version");
    for (const char *kind : {"RSA", "EC", "ED25519"}) {
        QTest::addRow("%s, TLS 1.2", kind) << QByteArray(kind) << TLS1_2_VERSION;
        QTest::addRow("%s, TLS 1.3", kind) << QByteArray(kind) << TLS1_3_VERSION;
    }
}

void tst_TlsIdentity::keys()
{
    QFETCH(QByteArray, kind);
    QFETCH(int, version);
    const Identity identity(kind == "RSA"          ? made::rsaKey()
                                    : kind == "EC" ? made::ecKey()
                                                   : made::ed25519Key());
    Plugin plugin(withTls({}, serverOf(identity, made::pkcs8(identity.key))));
    QVERIFY(plugin.start());
    for (int round = 0; round < 3; ++round) { // each connection uses the key anew
        TlsDevice device(version);
        QVERIFY(serves(plugin, device));
        const X509 *shown = SSL_get0_peer_certificate(device.native());
        QVERIFY(shown);
        QCOMPARE(X509_cmp(shown, identity.certificate.get()), 0);
        plugin.records.clear();
    }
}

void tst_TlsIdentity::passPhrase()
{
    QJsonObject server = serverOf(ec, made::pkcs8(ec.key, "secret"));
    server.insert(u"KeyPassphraseFile"_s, file(u"phrase"_s, "secret\n"));
    Plugin plugin(withTls({}, server));
    QVERIFY(plugin.start());
    TlsDevice device(TLS1_3_VERSION);
    QVERIFY(serves(plugin, device));
}

void tst_TlsIdentity::chain_data()
{
    QTest::addColumn<bool>("ownFile");
    QTest::newRow("ChainFile") << true;
    QTest::newRow("Chain") << false;
}

void tst_TlsIdentity::chain()
{
    QFETCH(bool, ownFile);
    QJsonObject server = serverOf(ec, made::pkcs8(ec.key));
    if (ownFile) {
        server.insert(u"ChainFile"_s, file(u"chain.pem"_s, made::pem(ec.intermediate)));
    } else {
        (void)file(u"server.pem"_s, made::pem(ec.certificate) + made::pem(ec.intermediate));
        server.insert(u"Chain"_s, true);
    }
    Plugin plugin(withTls({}, server));
    QVERIFY(plugin.start());
    for (const int version : {TLS1_2_VERSION, TLS1_3_VERSION}) {
        TlsDevice device(version);
        QVERIFY(serves(plugin, device));
        const auto *sent = SSL_get_peer_cert_chain(device.native());
        QCOMPARE(sk_X509_num(sent), 2);
        QCOMPARE(X509_cmp(sk_X509_value(sent, 1), ec.intermediate.get()), 0);
        plugin.records.clear();
    }
}

// A client that knows the authority alone can verify the server.
void tst_TlsIdentity::openSslShowsTheChain()
{
    QJsonObject server = serverOf(ec, made::pkcs8(ec.key));
    server.insert(u"ChainFile"_s, file(u"chain.pem"_s, made::pem(ec.intermediate)));
    Plugin plugin(withTls({}, server));
    QVERIFY(plugin.start());
    QProcess client;
    client.start(u"openssl"_s,
                 {u"s_client"_s, u"-connect"_s,
                  u"%1:%2"_s.arg(plugin.address.toString()).arg(plugin.port), u"-showcerts"_s,
                  u"-CAfile"_s, file(u"ca.pem"_s, made::pem(ec.authority)),
                  u"-verify_return_error"_s});
    client.closeWriteChannel();
    QTRY_COMPARE_WITH_TIMEOUT(client.state(), QProcess::NotRunning, HangGuardMs);
    const QByteArray said = client.readAllStandardOutput();
    QVERIFY2(said.contains("Verify return code: 0 (ok)"), said.constData());
    QVERIFY2(said.contains(made::pem(ec.certificate)), said.constData());
    QVERIFY2(said.contains(made::pem(ec.intermediate)), said.constData());
}

void tst_TlsIdentity::ciphers()
{
    QJsonObject server = serverOf(ec, made::pkcs8(ec.key));
    server.insert(u"Ciphers"_s, u"ECDHE+CHACHA20"_s);
    server.insert(u"CipherSuites"_s, u"TLS_AES_128_GCM_SHA256"_s);
    Plugin plugin(withTls({}, server));
    QVERIFY(plugin.start());
    TlsDevice older(TLS1_2_VERSION);
    QVERIFY(serves(plugin, older));
    QCOMPARE(SSL_get_cipher_name(older.native()), "ECDHE-ECDSA-CHACHA20-POLY1305");
    TlsDevice newer(TLS1_3_VERSION);
    QVERIFY(serves(plugin, newer));
    QCOMPARE(SSL_get_cipher_name(newer.native()), "TLS_AES_128_GCM_SHA256");
}

void tst_TlsIdentity::groups_data()
{
    QTest::addColumn<QString>("list");
    QTest::addColumn<int>("group");
    QTest::newRow("X25519") << u"X25519"_s << NID_X25519;
    QTest::newRow("P-384") << u"P-384:P-256"_s << NID_secp384r1;
    QTest::newRow("P-521") << u"P-521"_s << NID_secp521r1;
}

void tst_TlsIdentity::groups()
{
    QFETCH(QString, list);
    QFETCH(int, group);
    QJsonObject server = serverOf(ec, made::pkcs8(ec.key));
    server.insert(u"Groups"_s, list);
    Plugin plugin(withTls({}, server));
    QVERIFY(plugin.start());
    TlsDevice device(TLS1_3_VERSION);
    SSL_set1_groups_list(device.native(), list.section(u':', 0, 0).toLatin1().data());
    QVERIFY(serves(plugin, device));
    QCOMPARE(int(SSL_get_negotiated_group(device.native())), group);

    TlsDevice other(TLS1_3_VERSION);
    SSL_set1_groups_list(other.native(), QByteArray("X448").data());
    QVERIFY(!sendOverTls(other, plugin, "refused"));
}

void tst_TlsIdentity::ownAuthorityAlone_data()
{
    QTest::addColumn<bool>("hasOwn");
    QTest::newRow("own") << true;
    QTest::newRow("none") << false;
}

void tst_TlsIdentity::ownAuthorityAlone()
{
    QFETCH(bool, hasOwn);
    QJsonObject server = serverTls();
    server.insert(u"verifyPeer"_s, true);
    server.insert(u"systemCAs"_s, false);
    if (hasOwn)
        server.insert(u"CAFile"_s, certificateFile(u"ca.pem"_s));
    Plugin plugin(withTls({}, server));
    QVERIFY(plugin.start());
    for (const auto &[certificate, good] :
         {std::pair(u"client"_s, hasOwn), std::pair(u"client-foreign"_s, false)}) {
        const QByteArray message = certificate.toLatin1();
        TlsDevice device(TLS1_3_VERSION, certificate);
        QVERIFY(sendOverTls(device, plugin, message));
        if (good) {
            QVERIFY(plugin.recordOf(message));
            continue;
        }
        bool ended = false;
        QVERIFY(play([&] { ended = device.waitForEnd(); }));
        QVERIFY(ended);
        for (const shared_parsedData &record : std::as_const(plugin.records))
            QVERIFY(record->getOriginalMessage() != message);
    }
}

void tst_TlsIdentity::refusesToStart_data()
{
    QTest::addColumn<QString>("key");
    QTest::addColumn<QJsonValue>("value");
    QTest::addColumn<QString>("line");
    const QString start = u"W: TcpInputPlugin2(p): Configuration: ssl."_s;
    QTest::newRow("value") << u"KeyAlgorithm"_s << QJsonValue(u"dsa"_s)
                           << start + u"KeyAlgorithm is \"dsa\", accepted: \"rsa\" or \"auto\""_s;
    QTest::newRow("file") << u"ChainFile"_s << QJsonValue(u"/nowhere"_s)
                          << u"W: SSL: Failed to open chain file /nowhere"_s;
    QTest::newRow("engine")
            << u"sessionTickets"_s << QJsonValue(true)
            << u"W: SSL: sessionTickets needs \"engine\": \"own\" with this value"_s;
}

void tst_TlsIdentity::refusesToStart()
{
    QFETCH(QString, key);
    QFETCH(QJsonValue, value);
    QFETCH(QString, line);
    QJsonObject server = serverTls();
    server.insert(key, value);
    Plugin plugin(withTls({}, server));
    QVERIFY(!plugin.start());
    QVERIFY(takeLog().contains(line));
}

QTEST_GUILESS_MAIN(tst_TlsIdentity)
#include "tst_tlsidentity.moc"
