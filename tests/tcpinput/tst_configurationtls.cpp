// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "tcpinput/tcpinputplugin2.h"
#include "tests/kit/certificates.h"
#include "tests/kit/hangguard.h"
#include "tests/kit/loglines.h"
#include "tests/tcpinput/configurationtest.h"

#include <QtCore/QJsonArray>
#include <QtNetwork/QSslCertificate>
#include <QtNetwork/QTcpSocket>
#include <QtTest/QTest>

using namespace Qt::StringLiterals;
using namespace configurationtest;

namespace {

const QString AbortLine = u"W: TcpInputPlugin2(cfg): Failed to setup certificates, aborting"_s;

} // namespace

// The key "ssl".
class tst_ConfigurationTls : public ConfigurationTest
{
    Q_OBJECT

private Q_SLOTS:
    void init() { begin(); }
    void cleanup() { end(); }

    void tls();
    void tlsStaysWithoutItsKey();
    void tlsValueIsNoObject_data();
    void tlsValueIsNoObject();
    void tlsRejected();
    void tlsRejectedWhileListeningPlain();
    void tlsIsReadBetweenPortAndPoolSize();
};

void tst_ConfigurationTls::tls()
{
    const QJsonObject object = ownWithPort();
    const int port = object.value(u"port"_s).toInt();
    Plugin plugin(with(object, u"ssl"_s, serverTls()));
    QCOMPARE(plugin.startLog(), tlsStartLines(address.toString(), port));
    QCOMPARE(plugin.getStatus(), statusLine(address.toString(), port));
    QVERIFY(plugin.tlsServer().isListening());
    QVERIFY(!plugin.plainServer().isListening());

    const auto certificates = QSslCertificate::fromPath(certificateFile(u"server.pem"_s));
    QCOMPARE(certificates.size(), 1);
    QCOMPARE(plugin.tlsServer().sslConfiguration().localCertificate(), certificates.first());
    QCOMPARE(plugin.tlsServer().sslConfiguration().peerVerifyMode(), QSslSocket::VerifyNone);

    QVERIFY(plugin.stop());
    QVERIFY(!plugin.tlsServer().isListening());
    QCOMPARE(takeLog(), QStringList{u"D: TcpInputPlugin2(cfg): stop()"_s});
}

void tst_ConfigurationTls::tlsStaysWithoutItsKey()
{
    const QJsonObject object = ownWithPort();
    const int port = object.value(u"port"_s).toInt();
    Plugin plugin(with(object, u"ssl"_s, serverTls()));
    QCOMPARE(plugin.startLog(), tlsStartLines(address.toString(), port));
    QVERIFY(plugin.stop());

    plugin.setConfig(object);
    QCOMPARE(plugin.startLog(), startLines(address.toString(), port, u"SSL"_s));
    QVERIFY(plugin.tlsServer().isListening());
    QVERIFY(!plugin.plainServer().isListening());
    // The TLS configuration is the earlier one, too.
    QVERIFY(!plugin.tlsServer().sslConfiguration().localCertificate().isNull());
}

void tst_ConfigurationTls::tlsValueIsNoObject_data()
{
    QTest::addColumn<QJsonValue>("value");

    QTest::newRow("empty object") << QJsonValue(QJsonObject());
    QTest::newRow("false") << QJsonValue(false);
    QTest::newRow("true") << QJsonValue(true);
    QTest::newRow("null") << QJsonValue(QJsonValue::Null);
    QTest::newRow("number") << QJsonValue(1);
    QTest::newRow("text") << QJsonValue(u"CAFile"_s);
    QTest::newRow("array") << QJsonValue(QJsonArray{serverTls()});
}

// The presence of the key is enough for TLS.
void tst_ConfigurationTls::tlsValueIsNoObject()
{
    QFETCH(QJsonValue, value);

    const QJsonObject object = ownWithPort();
    const int port = object.value(u"port"_s).toInt();
    Plugin plugin(with(object, u"ssl"_s, value));
    QCOMPARE(plugin.startLog(), tlsStartLines(address.toString(), port));
    QCOMPARE(plugin.getStatus(), statusLine(address.toString(), port));

    const auto config = plugin.tlsServer().sslConfiguration();
    QCOMPARE(config.peerVerifyMode(), QSslSocket::VerifyPeer);
    QVERIFY(config.localCertificate().isNull());
}

void tst_ConfigurationTls::tlsRejected()
{
    const QJsonObject object = ownWithPort();
    const int port = object.value(u"port"_s).toInt();
    Plugin plugin(with(object, u"ssl"_s, QJsonObject{{u"CertFile"_s, u"/nowhere"_s}}));
    const QStringList rejected{ReadingLine, u"W: SSL: Failed to open Certificate file /nowhere"_s,
                               AbortLine};
    QCOMPARE(plugin.startLog(false), rejected);
    QCOMPARE(plugin.getStatus(), FirstStatus);
    QVERIFY(!plugin.tlsServer().isListening());
    QVERIFY(!plugin.plainServer().isListening());

    // Nothing is left of the rejected configuration, but the server still uses TLS.
    QVERIFY(!plugin.tlsServer().sslConfiguration().handshakeMustInterruptOnError());
    plugin.setConfig(object);
    QCOMPARE(plugin.startLog(), startLines(address.toString(), port, u"SSL"_s));
    QVERIFY(plugin.tlsServer().isListening());
    QVERIFY(!plugin.plainServer().isListening());
}

// From then on everything looks at the TLS server, although it is idle.
void tst_ConfigurationTls::tlsRejectedWhileListeningPlain()
{
    const QJsonObject object = ownWithPort();
    Plugin plugin(object);
    QVERIFY(plugin.start());
    plugin.setConfig(with(object, u"ssl"_s, QJsonObject{{u"KeyFile"_s, u"/nowhere"_s}}));
    QVERIFY(!plugin.start());
    QCOMPARE(plugin.getStatus(), FirstStatus);

    takeLog();
    QTcpSocket device;
    device.connectToHost(address, plugin.plainServer().serverPort());
    QTRY_VERIFY_WITH_TIMEOUT(plugin.plainServer().hasPendingConnections(), HangGuardMs);
    plugin.handleConnection();
    QCOMPARE(takeLog(), QStringList());

    QVERIFY(plugin.stop());
    QVERIFY(plugin.plainServer().isListening());
    takeLog();
}

void tst_ConfigurationTls::tlsIsReadBetweenPortAndPoolSize()
{
    QJsonObject object = ownWithPort();
    object.insert(u"timeout"_s, 90);
    object.insert(u"threadpoolSize"_s, 2);
    const QJsonObject bad{{u"CAFile"_s, u"/nowhere"_s}};

    Plugin fresh(with(object, u"ssl"_s, bad));
    QVERIFY(!fresh.start());
    QCOMPARE(fresh.getStatus(), FirstStatus);

    Plugin started(with(object, u"ssl"_s, serverTls()));
    QVERIFY(started.start());
    const int port = started.tlsServer().serverPort();
    object.insert(u"timeout"_s, 30);
    object.insert(u"threadpoolSize"_s, 3);
    started.setConfig(with(object, u"ssl"_s, bad));
    QVERIFY(!started.start());
    // The server goes on listening as before.
    QCOMPARE(started.getStatus(), statusLine(address.toString(), port, 90, 2));
    takeLog();
}

QTEST_GUILESS_MAIN(tst_ConfigurationTls)
#include "tst_configurationtls.moc"
