// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "ssl/ssl.h"
#include "tests/kit/loglines.h"
#include "tests/ssl/ssltest.h"

#include <QtCore/QJsonArray>
#include <QtNetwork/QSslConfiguration>
#include <QtNetwork/QSslSocket>
#include <QtTest/QTest>

using namespace Qt::StringLiterals;
using namespace ssltest;

// The other keys: verification, version, debugging.
class tst_SslSettings : public SslTest
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase() { prepare(); }
    void init() { begin(); }
    void cleanup() { end(); }

    void verifyPeer_data();
    void verifyPeer();
    void verifyModeIsExplicit();
    void tlsVersion_data();
    void tlsVersion();
    void unknownVersion_data();
    void unknownVersion();
    void tlsDebug_data();
    void tlsDebug();
    void linesComeInKeyOrder();
};

void tst_SslSettings::verifyPeer_data()
{
    QTest::addColumn<QJsonValue>("value");
    QTest::addColumn<QSslSocket::PeerVerifyMode>("mode");

    QTest::newRow("true") << QJsonValue(true) << QSslSocket::VerifyPeer;
    QTest::newRow("false") << QJsonValue(false) << QSslSocket::VerifyNone;
    QTest::newRow("text true") << QJsonValue(u"true"_s) << QSslSocket::VerifyNone;
    QTest::newRow("text false") << QJsonValue(u"false"_s) << QSslSocket::VerifyNone;
    QTest::newRow("empty text") << QJsonValue(QString()) << QSslSocket::VerifyNone;
    QTest::newRow("1") << QJsonValue(1) << QSslSocket::VerifyNone;
    QTest::newRow("0") << QJsonValue(0) << QSslSocket::VerifyNone;
    QTest::newRow("null") << QJsonValue(QJsonValue::Null) << QSslSocket::VerifyNone;
    QTest::newRow("array") << QJsonValue(QJsonArray{true}) << QSslSocket::VerifyNone;
    QTest::newRow("object") << QJsonValue(QJsonObject()) << QSslSocket::VerifyNone;
}

void tst_SslSettings::verifyPeer()
{
    QFETCH(QJsonValue, value);
    QFETCH(QSslSocket::PeerVerifyMode, mode);

    QSslConfiguration config;
    QVERIFY(ssl::readSslConfig({{u"verifyPeer"_s, value}}, config));
    QCOMPARE(takeLog(), QStringList{ReadingLine});
    QCOMPARE(config.peerVerifyMode(), mode);
    // Nothing else has changed.
    config.setPeerVerifyMode(QSslSocket::VerifyPeer);
    QVERIFY(config == verifyingDefault());
}

// The mode does not depend on the default that the process has set.
void tst_SslSettings::verifyModeIsExplicit()
{
    const auto previous = QSslConfiguration::defaultConfiguration();
    for (const auto mode : {QSslSocket::AutoVerifyPeer, QSslSocket::VerifyNone,
                            QSslSocket::QueryPeer, QSslSocket::VerifyPeer}) {
        auto ours = previous;
        ours.setPeerVerifyMode(mode);
        QSslConfiguration::setDefaultConfiguration(ours);
        QSslConfiguration absent;
        QSslConfiguration off;
        const bool read = ssl::readSslConfig({}, absent)
                && ssl::readSslConfig({{u"verifyPeer"_s, false}}, off);
        QSslConfiguration::setDefaultConfiguration(previous);

        QVERIFY(read);
        QCOMPARE(absent.peerVerifyMode(), QSslSocket::VerifyPeer);
        QCOMPARE(off.peerVerifyMode(), QSslSocket::VerifyNone);
    }
    takeLog();
}

void tst_SslSettings::tlsVersion_data()
{
    QTest::addColumn<QString>("text");
    QTest::addColumn<QSsl::SslProtocol>("protocol");

    QTest::newRow("1.3") << u"1.3"_s << QSsl::TlsV1_3;
    QTest::newRow("1.3+") << u"1.3+"_s << QSsl::TlsV1_3OrLater;
    QTest::newRow("1.2") << u"1.2"_s << QSsl::TlsV1_2;
    QTest::newRow("1.2+") << u"1.2+"_s << QSsl::TlsV1_2OrLater;
}

void tst_SslSettings::tlsVersion()
{
    QFETCH(QString, text);
    QFETCH(QSsl::SslProtocol, protocol);

    QSslConfiguration config;
    QVERIFY(ssl::readSslConfig({{u"tlsVersion"_s, text}}, config));
    QCOMPARE(takeLog(),
             QStringList({ReadingLine, u"D: SSL: Setting TLS protocol version '%1'"_s.arg(text)}));
    QCOMPARE(config.protocol(), protocol);
    QVERIFY(config.testSslOption(QSsl::SslOptionDisableServerCipherPreference));
    QCOMPARE(config.peerVerifyMode(), QSslSocket::VerifyPeer);
}

void tst_SslSettings::unknownVersion_data()
{
    QTest::addColumn<QString>("text");

    for (const char *text : {"", "1.1", "1.0", "TLS1.2", "1.4", "1.3 ", " 1.3", "1.3-", "1.3++",
                             "1.2.", "1,3", "1", "SSLv3", "%1"})
        QTest::newRow(qPrintable(u"'%1'"_s.arg(QLatin1String(text)))) << QString::fromLatin1(text);
}

void tst_SslSettings::unknownVersion()
{
    QFETCH(QString, text);

    QSslConfiguration config;
    QVERIFY(ssl::readSslConfig({{u"tlsVersion"_s, text}}, config));
    QCOMPARE(takeLog(),
             QStringList({ReadingLine,
                          u"W: SSL Config: unknown TLS version "_s + text + u", ignoring"_s}));
    QVERIFY(config == verifyingDefault());
    QVERIFY(!config.testSslOption(QSsl::SslOptionDisableServerCipherPreference));
}

void tst_SslSettings::tlsDebug_data()
{
    QTest::addColumn<QJsonValue>("value");
    QTest::addColumn<bool>("on");

    QTest::newRow("true") << QJsonValue(true) << true;
    QTest::newRow("false") << QJsonValue(false) << false;
    QTest::newRow("text true") << QJsonValue(u"true"_s) << false;
    QTest::newRow("1") << QJsonValue(1) << false;
    QTest::newRow("null") << QJsonValue(QJsonValue::Null) << false;
    QTest::newRow("object") << QJsonValue(QJsonObject()) << false;
}

void tst_SslSettings::tlsDebug()
{
    QFETCH(QJsonValue, value);
    QFETCH(bool, on);

    QSslConfiguration config;
    QVERIFY(ssl::readSslConfig({{u"tlsDebug"_s, value}}, config));
    QStringList expected{ReadingLine};
    if (on)
        expected.append(u"D: SSL: Enable Handshake Debugging"_s);
    QCOMPARE(takeLog(), expected);
    QCOMPARE(config.handshakeMustInterruptOnError(), on);
    QCOMPARE(config.peerVerifyMode(), QSslSocket::VerifyPeer);
}

// In the order of the keys, capital letters come first.
void tst_SslSettings::linesComeInKeyOrder()
{
    const QJsonObject object{{u"verifyPeer"_s, true},    {u"tlsVersion"_s, u"1.2+"_s},
                             {u"tlsDebug"_s, true},      {u"KeyFile"_s, u"/key"_s},
                             {u"CertFile"_s, u"/own"_s}, {u"CAFile"_s, u"/ca"_s}};
    QSslConfiguration config;
    QVERIFY(!ssl::readSslConfig(object, config));
    QCOMPARE(takeLog(),
             QStringList({ReadingLine, u"W: SSL: Failed to open CA Certificate file /ca"_s,
                          u"W: SSL: Failed to open Certificate file /own"_s,
                          u"W: SSL: Failed to open key file /key"_s,
                          u"D: SSL: Enable Handshake Debugging"_s,
                          u"D: SSL: Setting TLS protocol version '1.2+'"_s}));
}

QTEST_GUILESS_MAIN(tst_SslSettings)
#include "tst_sslsettings.moc"
