// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "ssl/sslkeys.h"
#include "tcpinput/configuration/configuration.h"
#include "tcpinput/configuration/values.h"
#include "tests/kit/certificates.h"
#include "tests/kit/loglines.h"

#include <QtCore/QFile>
#include <QtCore/QJsonArray>
#include <QtTest/QTest>

#include <algorithm>

using namespace Qt::StringLiterals;

namespace {

QString contentOf(const QString &file)
{
    QFile source(QStringLiteral(SOURCE_DIR) + file);
    return source.open(QIODevice::ReadOnly) ? QString::fromUtf8(source.readAll()) : QString();
}

const tls::Key &keyOf(const QString &name)
{
    const auto &keys = tls::keys();
    return *std::find_if(keys.begin(), keys.end(),
                         [&name](const tls::Key &key) { return name == QLatin1String(key.name); });
}

QJsonObject configured(const QJsonObject &tls, bool strict = false)
{
    return {{u"ssl"_s, tls}, {u"strict"_s, strict}};
}

} // namespace

// The table of the keys of "ssl": what is written elsewhere about a key says the same.
class tst_TlsKeys : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void areSorted();
    void documentHasThem();
    void fuzzDictionaryHasThem();
    void acceptsGoodValues_data();
    void acceptsGoodValues();
    void refusesBadValues_data();
    void refusesBadValues();
    void onlyStrictRefusesUnknownKeys();
    void keysThatAreReadOtherwise_data();
    void keysThatAreReadOtherwise();
};

void tst_TlsKeys::areSorted()
{
    const auto &keys = tls::keys();
    QVERIFY(std::is_sorted(keys.begin(), keys.end(), [](const auto &left, const auto &right) {
        return QLatin1String(left.name) < QLatin1String(right.name);
    }));
}

// Those that may refuse to start have a table of their own, with what is accepted.
void tst_TlsKeys::documentHasThem()
{
    const QString section = contentOf(u"/docs/CONFIGURATION.md"_s)
                                    .section(u"\n## \"ssl\""_s, 1)
                                    .section(u"\n## "_s, 0, 0);
    for (const tls::Key &key : tls::keys()) {
        const QString name = QLatin1String(key.name);
        const QString accepted = QLatin1String(key.accepted);
        const QString row = key.bad == tls::Bad::Ignored
                ? u"\n| `\"%1\"` | "_s.arg(name)
                : u"\n| `\"%1\"` | %2 | "_s.arg(name, accepted);
        QVERIFY2(section.contains(row), qPrintable(row));
    }
    QCOMPARE(section.count(u"\n| `\""_s), qsizetype(tls::keys().size()));
}

void tst_TlsKeys::fuzzDictionaryHasThem()
{
    const QString words = contentOf(u"/fuzz/json.dict"_s);
    for (const tls::Key &key : tls::keys())
        QVERIFY2(words.contains(u"\"\\\"%1\\\":\"\n"_s.arg(QLatin1String(key.name))), key.name);
}

void tst_TlsKeys::acceptsGoodValues_data()
{
    QTest::addColumn<QString>("key");
    QTest::addColumn<QJsonValue>("value");
    const auto row = [](const QString &key, const QJsonValue &value) {
        QTest::addRow("%s %s", qPrintable(key), qPrintable(values::shown(value))) << key << value;
    };
    row(u"Chain"_s, true);
    row(u"Chain"_s, false);
    row(u"ChainFile"_s, u"/no such file"_s);
    row(u"CRLFile"_s, u"/no such file"_s);
    row(u"CipherSuites"_s, u"TLS_AES_128_GCM_SHA256"_s);
    row(u"CipherSuites"_s, u"TLS_AES_256_GCM_SHA384:TLS_AES_128_CCM_SHA256"_s);
    row(u"Ciphers"_s, u"HIGH:!aNULL"_s);
    row(u"Ciphers"_s, u"ECDHE+AESGCM:@SECLEVEL=2"_s);
    row(u"Groups"_s, u"X25519"_s);
    row(u"Groups"_s, u"P-256:secp384r1:ffdhe2048"_s);
    row(u"KeyAlgorithm"_s, u"rsa"_s);
    row(u"KeyAlgorithm"_s, u"auto"_s);
    row(u"KeyPassphraseFile"_s, u"/no such file"_s);
    row(u"engine"_s, u"qt"_s);
    row(u"engine"_s, u"own"_s);
    row(u"minimumSecurity"_s, 0);
    row(u"minimumSecurity"_s, 5);
    row(u"sessionTickets"_s, true);
    row(u"systemCAs"_s, false);
}

void tst_TlsKeys::acceptsGoodValues()
{
    QFETCH(QString, key);
    QFETCH(QJsonValue, value);
    const MessageCapture capture;
    QVERIFY(Configuration::check(configured({{key, value}}, true), u"t"_s));
    QCOMPARE(takeLog(), QStringList());
}

void tst_TlsKeys::refusesBadValues_data()
{
    QTest::addColumn<QString>("key");
    QTest::addColumn<QJsonValue>("value");
    for (const tls::Key &key : tls::keys()) {
        if (key.bad == tls::Bad::Ignored)
            continue;
        for (const QJsonValue &value :
             {QJsonValue(), QJsonValue(7), QJsonValue(u""_s), QJsonValue(QJsonArray{true})})
            QTest::addRow("%s %s", key.name, qPrintable(values::shown(value)))
                    << QString(QLatin1String(key.name)) << value;
    }
    const auto row = [](const QString &key, const QJsonValue &value) {
        QTest::addRow("%s %s", qPrintable(key), qPrintable(values::shown(value))) << key << value;
    };
    row(u"Chain"_s, u"true"_s);
    row(u"CipherSuites"_s, u"TLS_AES_128_GCM_SHA256:TLS_AES_128_GCM_SHA1"_s);
    row(u"CipherSuites"_s, u"TLS_AES_128_GCM_SHA256:"_s);
    row(u"CipherSuites"_s, u"ECDHE-RSA-AES128-GCM-SHA256"_s);
    row(u"Ciphers"_s, u"AES129"_s);
    row(u"Ciphers"_s, u"TLS_AES_128_GCM_SHA256"_s);
    row(u"Ciphers"_s, u"ALL:@SECLEVEL=6"_s);
    row(u"Ciphers"_s, QString(u"HIGH\0"_s));
    row(u"Groups"_s, u"P-256:P-255"_s);
    row(u"Groups"_s, u"P-256:"_s);
    row(u"KeyAlgorithm"_s, u"RSA"_s);
    row(u"engine"_s, u"Own"_s);
    row(u"minimumSecurity"_s, -1);
    row(u"minimumSecurity"_s, 6);
    row(u"minimumSecurity"_s, 0.5);
    row(u"minimumSecurity"_s, u"2"_s);
    row(u"sessionTickets"_s, 0);
    row(u"systemCAs"_s, u"false"_s);
}

// Whether "strict" is on or not.
void tst_TlsKeys::refusesBadValues()
{
    QFETCH(QString, key);
    QFETCH(QJsonValue, value);
    const MessageCapture capture;
    for (const bool strict : {false, true}) {
        QVERIFY(!Configuration::check(configured({{key, value}}, strict), u"t"_s));
        QCOMPARE(takeLog(),
                 QStringList(
                         u"W: TcpInputPlugin2(t): Configuration: ssl.%1 is %2, accepted: %3"_s.arg(
                                 key, values::shown(value), QLatin1String(keyOf(key).accepted))));
    }
}

void tst_TlsKeys::onlyStrictRefusesUnknownKeys()
{
    const MessageCapture capture;
    const QJsonObject object{{u"chain"_s, 7}, {u"Engine"_s, u"mine"_s}};
    QVERIFY(Configuration::check(configured(object), u"t"_s));
    QCOMPARE(takeLog(), QStringList());
    QVERIFY(!Configuration::check(configured(object, true), u"t"_s));
    QCOMPARE(takeLog().size(), 2);
}

void tst_TlsKeys::keysThatAreReadOtherwise_data()
{
    QTest::addColumn<QJsonObject>("more");
    QTest::addColumn<bool>("good");
    QTest::newRow("RSA is expected") << QJsonObject() << false;
    QTest::newRow("rsa") << QJsonObject{{u"KeyAlgorithm"_s, u"rsa"_s}} << false;
    QTest::newRow("auto") << QJsonObject{{u"KeyAlgorithm"_s, u"auto"_s}} << true;
    QTest::newRow("pass phrase") << QJsonObject{{u"KeyPassphraseFile"_s, u"x"_s}} << true;
}

void tst_TlsKeys::keysThatAreReadOtherwise()
{
    QFETCH(QJsonObject, more);
    QFETCH(bool, good);
    const MessageCapture capture;
    for (const auto &[key, value] : {std::pair(u"KeyFile"_s, certificateFile(u"ec.key"_s)),
                                     std::pair(u"PrivateKey"_s, certificateText(u"ec.key"_s))}) {
        QJsonObject object = more;
        object.insert(key, value);
        QCOMPARE(Configuration::check(configured(object, true), u"t"_s), good);
        QCOMPARE(takeLog().size(), good ? 0 : 1);
    }
}

QTEST_GUILESS_MAIN(tst_TlsKeys)
#include "tst_tlskeys.moc"
