// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "tcpinput/configuration/configuration.h"
#include "tcpinput/configuration/proxykeys.h"
#include "tests/kit/loglines.h"

#include <QtCore/QFile>
#include <QtCore/QJsonArray>
#include <QtTest/QTest>

#include <algorithm>

using namespace Qt::StringLiterals;

namespace {

const QString Line = u"W: TcpInputPlugin2(t): Configuration: proxyProtocol%1, accepted: %2"_s;
const QString Networks = u"an array of addresses and networks such as \"10.0.0.0/8\""_s;

QJsonObject configured(const QJsonValue &value)
{
    return {{u"proxyProtocol"_s, value}};
}

// A good rule, and one more key.
QJsonObject rule(const QString &key = {}, const QJsonValue &value = {})
{
    QJsonObject result{{u"from"_s, QJsonArray{u"10.0.0.0/8"_s, u"::1"_s}}};
    if (!key.isEmpty())
        result.insert(key, value);
    return result;
}

} // namespace

/*!
    The object "proxyProtocol" of the configuration.
*/
class tst_ProxyKeys : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void areSorted();
    void documentHasThem();
    void makeARule();
    void defaults();
    void accepts_data();
    void accepts();
    void refuses_data();
    void refuses();
};

void tst_ProxyKeys::areSorted()
{
    const auto &keys = proxykeys::all();
    QVERIFY(std::is_sorted(keys.begin(), keys.end(), [](const auto &left, const auto &right) {
        return QLatin1String(left.name) < QLatin1String(right.name);
    }));
}

void tst_ProxyKeys::documentHasThem()
{
    QFile source(QStringLiteral(SOURCE_DIR) + u"/docs/CONFIGURATION.md"_s);
    QVERIFY(source.open(QIODevice::ReadOnly));
    const QString all = QString::fromUtf8(source.readAll());
    const QString section = all.section(u"## \"proxyProtocol\""_s, 1).section(u"\n## "_s, 0, 0);
    qsizetype rows = 0;
    for (const auto &key : proxykeys::all()) {
        QVERIFY2(section.contains(u"| `\"%1\"` | %2 |"_s.arg(QLatin1String(key.name),
                                                             QLatin1String(key.accepted))),
                 key.name);
        ++rows;
    }
    QCOMPARE(section.count(u"\n| `\""_s), rows);
}

void tst_ProxyKeys::makeARule()
{
    QJsonObject object = rule(u"timeout"_s, 7);
    object.insert(u"others"_s, u"refuse"_s);
    Configuration configuration;
    QVERIFY(configuration.apply(configured(object), u"t"_s));
    QVERIFY(configuration.proxies);
    QCOMPARE(configuration.proxies->timeoutMs, 7000);
    QVERIFY(!configuration.proxies->servesOthers);
    QVERIFY(configuration.proxies->isProxy(QHostAddress(u"10.1.2.3"_s)));
    QVERIFY(configuration.proxies->isProxy(QHostAddress(u"::1"_s)));
    QVERIFY(!configuration.proxies->isProxy(QHostAddress(u"11.1.2.3"_s)));
}

void tst_ProxyKeys::defaults()
{
    Configuration configuration;
    QVERIFY(configuration.apply({}, u"t"_s));
    QVERIFY(!configuration.proxies);
    QVERIFY(configuration.apply(configured(rule()), u"t"_s));
    QCOMPARE(configuration.proxies->timeoutMs, 5000);
    QVERIFY(configuration.proxies->servesOthers);
}

void tst_ProxyKeys::accepts_data()
{
    QTest::addColumn<QJsonObject>("value");
    QTest::newRow("from alone") << rule();
    QTest::newRow("serve") << rule(u"others"_s, u"serve"_s);
    QTest::newRow("refuse") << rule(u"others"_s, u"refuse"_s);
    QTest::newRow("a second") << rule(u"timeout"_s, 1);
    QTest::newRow("for ever, nearly") << rule(u"timeout"_s, 2147483647);
}

void tst_ProxyKeys::accepts()
{
    QFETCH(QJsonObject, value);
    for (const bool strict : {false, true}) {
        QJsonObject object = configured(value);
        object.insert(u"strict"_s, strict);
        const MessageCapture capture;
        QVERIFY(Configuration::check(object, u"t"_s));
        QCOMPARE(takeLog(), QStringList());
    }
    Configuration configuration;
    QVERIFY(configuration.apply(configured(value), u"t"_s));
    QVERIFY(configuration.proxies->timeoutMs > 0);
}

void tst_ProxyKeys::refuses_data()
{
    QTest::addColumn<QJsonValue>("value");
    QTest::addColumn<QString>("line");
    const auto row = [](const char *name, const QJsonValue &value, const QString &what,
                        const QString &accepted) {
        QTest::newRow(name) << value << Line.arg(what, accepted);
    };
    const QString object = u"an object with \"from\""_s;
    row("text", u"on"_s, u" is \"on\""_s, object);
    row("true", true, u" is true"_s, object);
    row("null", QJsonValue(), u" is null"_s, object);
    row("empty", QJsonObject(), u" is an object"_s, object);
    row("no proxies", QJsonObject{{u"timeout"_s, 5}}, u" is an object"_s, object);
    row("from is text", QJsonObject{{u"from"_s, u"::1"_s}}, u".from is \"::1\""_s, Networks);
    row("from is empty", QJsonObject{{u"from"_s, QJsonArray()}}, u".from is []"_s, Networks);
    row("no network", QJsonObject{{u"from"_s, QJsonArray{u"::1"_s, u"10/8"_s}}},
        u".from is [\"::1\",\"10/8\"]"_s, Networks);
    row("a number", QJsonObject{{u"from"_s, QJsonArray{u"::1"_s, 10}}}, u".from is [\"::1\",10]"_s,
        Networks);
    row("timeout 0", rule(u"timeout"_s, 0), u".timeout is 0"_s, u"1 to 2147483647"_s);
    row("timeout text", rule(u"timeout"_s, u"5"_s), u".timeout is \"5\""_s, u"1 to 2147483647"_s);
    row("timeout with a fraction", rule(u"timeout"_s, 1.5), u".timeout is 1.5"_s,
        u"1 to 2147483647"_s);
    row("others", rule(u"others"_s, u"Refuse"_s), u".others is \"Refuse\""_s,
        u"\"serve\" or \"refuse\""_s);
    row("others true", rule(u"others"_s, true), u".others is true"_s, u"\"serve\" or \"refuse\""_s);
    QTest::newRow("unknown key")
            << QJsonValue(rule(u"Timeout"_s, 5))
            << u"W: TcpInputPlugin2(t): Configuration: unknown key proxyProtocol.Timeout, "
               "accepted: from, others, timeout"_s;
}

// With and without "strict".
void tst_ProxyKeys::refuses()
{
    QFETCH(QJsonValue, value);
    QFETCH(QString, line);
    for (const bool strict : {false, true}) {
        QJsonObject object = configured(value);
        object.insert(u"strict"_s, strict);
        const MessageCapture capture;
        QVERIFY(!Configuration::check(object, u"t"_s));
        QCOMPARE(takeLog(), QStringList(line));
    }
}

QTEST_GUILESS_MAIN(tst_ProxyKeys)
#include "tst_proxykeys.moc"
