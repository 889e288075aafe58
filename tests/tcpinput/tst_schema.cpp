// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "ssl/sslkeys.h"
#include "tcpinput/configuration/configuration.h"
#include "tcpinput/configuration/limitkeys.h"
#include "tcpinput/configuration/proxykeys.h"
#include "tcpinput/configuration/schema.h"

#include <QtCore/QJsonArray>
#include <QtTest/QtTest>

using namespace Qt::StringLiterals;

// The schema has the keys that the plugin reads. What it accepts is compared from outside:
// tests/host/check_schema.py.
class tst_Schema : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void hasAllKeys();
    void describesEach();
    void examplesAreAccepted();
};

namespace {

QJsonObject propertiesOf(const QString &object)
{
    const QJsonObject all = schema::configuration().value(u"properties"_s).toObject();
    return object.isEmpty() ? all : all.value(object).toObject().value(u"properties"_s).toObject();
}

template<class Table>
QStringList namesOf(const Table &table)
{
    QStringList names;
    for (const auto &key : table)
        names += QLatin1String(key.name);
    names.sort();
    return names;
}

// Their examples name what this machine does not have, or are cut short.
bool isElsewhere(const QString &key)
{
    return key == u"interface" || key == u"Certificate" || key == u"CACertificate"
            || key == u"PrivateKey";
}

template<class Table>
void compareExamples(const QString &object, const Table &table)
{
    const QJsonObject properties = propertiesOf(object);
    for (const auto &key : table) {
        const QString name = QLatin1String(key.name);
        const QJsonValue example =
                properties.value(name).toObject().value(u"examples"_s).toArray().first();
        QVERIFY2(!example.isUndefined(), key.name);
        if (!isElsewhere(name))
            QVERIFY2(key.isAccepted(example), key.name);
    }
}

} // namespace

void tst_Schema::hasAllKeys()
{
    QCOMPARE(propertiesOf({}).keys(), namesOf(Configuration::keys()));
    QCOMPARE(propertiesOf(u"limits"_s).keys(), namesOf(limitkeys::all()));
    QCOMPARE(propertiesOf(u"proxyProtocol"_s).keys(), namesOf(proxykeys::all()));
    QCOMPARE(propertiesOf(u"ssl"_s).keys(), namesOf(tls::keys()));
}

void tst_Schema::describesEach()
{
    for (const QString &object : {u""_s, u"limits"_s, u"proxyProtocol"_s, u"ssl"_s}) {
        const QJsonObject properties = propertiesOf(object);
        for (auto property = properties.begin(); property != properties.end(); ++property) {
            const QJsonObject schema = property->toObject();
            QVERIFY2(schema.contains(u"type"_s) || schema.contains(u"enum"_s),
                     qPrintable(property.key()));
            QVERIFY2(schema.value(u"description"_s).toString().endsWith(u'.'),
                     qPrintable(property.key()));
        }
    }
}

void tst_Schema::examplesAreAccepted()
{
    compareExamples({}, Configuration::keys());
    compareExamples(u"limits"_s, limitkeys::all());
    compareExamples(u"proxyProtocol"_s, proxykeys::all());
    compareExamples(u"ssl"_s, tls::keys());
}

QTEST_GUILESS_MAIN(tst_Schema)
#include "tst_schema.moc"
