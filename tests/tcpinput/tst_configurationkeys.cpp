// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "tcpinput/configuration.h"

#include <QtCore/QFile>
#include <QtTest/QTest>

#include <algorithm>

using namespace Qt::StringLiterals;

namespace {

QStringList linesOf(const QString &file)
{
    QFile source(QStringLiteral(SOURCE_DIR) + file);
    return source.open(QIODevice::ReadOnly) ? QString::fromUtf8(source.readAll()).split(u'\n')
                                            : QStringList();
}

} // namespace

/*!
    The table of keys: what is written of them elsewhere says the same, and they do what it says.
*/
class tst_ConfigurationKeys : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void areSorted();
    void documentHasTheTable();
    void fuzzDictionaryHasThem();
    void someStick();
};

// In which order they are applied shows: of two addresses the later one wins.
void tst_ConfigurationKeys::areSorted()
{
    const auto &keys = Configuration::keys();
    QVERIFY(std::is_sorted(keys.begin(), keys.end(), [](const auto &left, const auto &right) {
        return QLatin1String(left.name) < QLatin1String(right.name);
    }));
}

void tst_ConfigurationKeys::documentHasTheTable()
{
    QStringList rows;
    for (const QString &line : linesOf(u"/docs/CONFIGURATION.md"_s)) {
        if (line.startsWith(u"## "))
            break; // the keys of "ssl" follow
        if (line.startsWith(u"| `\""))
            rows += line;
    }
    rows.sort();
    QStringList expected;
    for (const Configuration::Key &key : Configuration::keys())
        expected += u"| `\"%1\"` | %2 | %3 | %4 | %5 |"_s.arg(
                QLatin1String(key.name), QLatin1String(key.type), QLatin1String(key.byDefault),
                QLatin1String(key.accepted), QLatin1String(key.badValue));
    expected.sort();
    QCOMPARE(rows, expected);
}

void tst_ConfigurationKeys::fuzzDictionaryHasThem()
{
    const QStringList words = linesOf(u"/fuzz/json.dict"_s);
    for (const Configuration::Key &key : Configuration::keys())
        QVERIFY2(words.contains(u"\"\\\"%1\\\":\""_s.arg(QLatin1String(key.name))), key.name);
}

void tst_ConfigurationKeys::someStick()
{
    const QJsonObject all{
            {u"ipAddr"_s, u"127.1.2.3"_s}, {u"port"_s, 4711},  {u"offsets"_s, true},
            {u"threadpoolSize"_s, 7},      {u"timeout"_s, 11}, {u"ssl"_s, QJsonObject()}};
    const auto values = [](const Configuration &from) {
        return QMap<QString, QString>{{u"ipAddr"_s, from.address.toString()},
                                      {u"port"_s, QString::number(from.port)},
                                      {u"offsets"_s, QString::number(from.offsets)},
                                      {u"threadpoolSize"_s, QString::number(from.poolSize)},
                                      {u"timeout"_s, QString::number(from.timeoutMs)},
                                      {u"ssl"_s, QString::number(from.useTls)}};
    };
    Configuration defaults;
    QVERIFY(defaults.apply({}, u"t"_s));
    Configuration configuration;
    QVERIFY(configuration.apply(all, u"t"_s));
    const auto before = values(configuration);
    QVERIFY(configuration.apply({}, u"t"_s));
    for (const Configuration::Key &key : Configuration::keys()) {
        const QString name = QLatin1String(key.name);
        if (name == u"interface") // has its place in the address
            continue;
        QVERIFY2(before[name] != values(defaults)[name], key.name);
        QCOMPARE(values(configuration)[name], key.sticks ? before[name] : values(defaults)[name]);
    }
}

QTEST_GUILESS_MAIN(tst_ConfigurationKeys)
#include "tst_configurationkeys.moc"
