// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "plugin/parseddata.h"
#include "tests/kit/memorylayout.h"
#include "tests/plugin/recordlayout.h"

#include <QtCore/QRegularExpression>
#include <QtTest/QTest>

#include <cstddef>
#include <type_traits>

using namespace recordlayout;

static_assert(!std::is_copy_constructible_v<ParsedData> && !std::is_copy_assignable_v<ParsedData>);
static_assert(!std::is_move_constructible_v<ParsedData> && !std::is_move_assignable_v<ParsedData>);
static_assert(!std::is_polymorphic_v<ParsedData>);
static_assert(std::is_same_v<shared_parsedData, QSharedPointer<ParsedData>>);

// A record in a single thread.
class tst_ParsedData : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();

    void metaType();
    void debugStream();
    void defaults();
    void accessors();
    void settersReplace();
    void subIds();
    void fields();
    void dataLength();
    void dataId_data();
    void dataId();
    void madeWhole();
    void timestampIsTheCreationTime();
    void timestampZones();
    void gettersReturnCopies();
    void memberOrder();
};

void tst_ParsedData::initTestCase()
{
    // Nothing knows the names before the first request for the id.
    QVERIFY(!QMetaType::fromName("shared_parsedData").isValid());
    QVERIFY(!QMetaType::fromName("QSharedPointer<ParsedData>").isValid());
    QVERIFY(qMetaTypeId<shared_parsedData>() >= QMetaType::User);
}

void tst_ParsedData::metaType()
{
    const QMetaType type = QMetaType::fromName("QSharedPointer<ParsedData>");
    QVERIFY(type.isValid());
    QCOMPARE(type.id(), qMetaTypeId<shared_parsedData>());
    QCOMPARE(type.name(), "QSharedPointer<ParsedData>");
    QCOMPARE(QMetaType::fromName("shared_parsedData").id(), type.id());
    QCOMPARE(type.sizeOf(), qsizetype(sizeof(QSharedPointer<ParsedData>)));
}

void tst_ParsedData::debugStream()
{
    const shared_parsedData record(new ParsedData);
    QString expected;
    QDebug(&expected).nospace() << "QSharedPointer(" << static_cast<void *>(record.get()) << ")";
    const QRegularExpression form(QStringLiteral("^QSharedPointer\\(0x[0-9a-f]+\\)$"));
    QVERIFY2(form.match(expected).hasMatch(), qUtf8Printable(expected));

    QString direct;
    QDebug(&direct).nospace() << record;
    QCOMPARE(direct, expected);

    QVERIFY(QMetaType::fromType<shared_parsedData>().hasRegisteredDebugStreamOperator());
    QString byType;
    QDebug debug(&byType);
    QVERIFY(QMetaType::fromType<shared_parsedData>().debugStream(debug.nospace(), &record));
    QCOMPARE(byType.trimmed(), expected);
}

void tst_ParsedData::defaults()
{
    ParsedData record;
    QVERIFY(record.getFormat().isEmpty());
    QVERIFY(record.getPluginId().isEmpty());
    QVERIFY(record.getPluginSubId().isEmpty());
    QVERIFY(record.getPeerAddress().isEmpty());
    QCOMPARE(record.getPeerPort(), 0);
    QVERIFY(record.getOriginalMessage().isEmpty());
    QCOMPARE(record.getDataLength(), 0);
    QVERIFY(record.getDeviceId().isEmpty());
    QVERIFY(record.getSource().isEmpty());
    QVERIFY(record.getData().isEmpty());
    QCOMPARE(record.isParsed(), false);
    QCOMPARE(record.isGPSPosData(), false);
    QCOMPARE(record.getDevice(), nullptr);
}

void tst_ParsedData::accessors()
{
    Device device;
    ParsedData record;
    record.setFormat(QStringLiteral("nmea"));
    record.setPluginId(QStringLiteral("tcp"));
    record.addPluginSubId(QStringLiteral("task"), QStringLiteral("3"));
    record.setPeerAddress(QStringLiteral("10.0.0.7"));
    record.setPeerPort(65535);
    record.setOriginalMessage(QByteArrayLiteral("a\0b"));
    record.setDeviceId(QStringLiteral("imei"));
    record.setSource(QStringLiteral("source"));
    record.setData({{QStringLiteral("lat"), QStringLiteral("51")}});
    record.setParsed(true);
    record.setGPSPosData(true);
    record.setDevice(&device);

    QCOMPARE(record.getFormat(), QStringLiteral("nmea"));
    QCOMPARE(record.getPluginId(), QStringLiteral("tcp"));
    const QMap<QString, QString> subIds{{QStringLiteral("task"), QStringLiteral("3")}};
    QCOMPARE(record.getPluginSubId(), subIds);
    QCOMPARE(record.getPeerAddress(), QStringLiteral("10.0.0.7"));
    QCOMPARE(record.getPeerPort(), 65535);
    QCOMPARE(record.getOriginalMessage(), QByteArrayLiteral("a\0b"));
    QCOMPARE(record.getDeviceId(), QStringLiteral("imei"));
    QCOMPARE(record.getSource(), QStringLiteral("source"));
    const QMap<QString, QString> data{{QStringLiteral("lat"), QStringLiteral("51")}};
    QCOMPARE(record.getData(), data);
    QCOMPARE(record.isParsed(), true);
    QCOMPARE(record.isGPSPosData(), true);
    QCOMPARE(record.getDevice(), &device);
}

void tst_ParsedData::settersReplace()
{
    Device device;
    ParsedData record;
    for (const QString &text : {QStringLiteral("first"), QStringLiteral("second"), QString()}) {
        record.setFormat(text);
        QCOMPARE(record.getFormat(), text);
        record.setPluginId(text);
        QCOMPARE(record.getPluginId(), text);
        record.setPeerAddress(text);
        QCOMPARE(record.getPeerAddress(), text);
        record.setDeviceId(text);
        QCOMPARE(record.getDeviceId(), text);
        record.setSource(text);
        QCOMPARE(record.getSource(), text);
        record.setOriginalMessage(text.toUtf8());
        QCOMPARE(record.getOriginalMessage(), text.toUtf8());
        record.setData({{text, text}});
        QCOMPARE(record.getData().size(), 1);
        QCOMPARE(record.getData().firstKey(), text);
    }
    record.setPeerPort(7);
    record.setPeerPort(8);
    QCOMPARE(record.getPeerPort(), 8);
    for (const bool flag : {true, false}) {
        record.setParsed(flag);
        QCOMPARE(record.isParsed(), flag);
        QCOMPARE(record.isGPSPosData(), false);
    }
    record.setGPSPosData(true);
    record.setGPSPosData(false);
    QCOMPARE(record.isGPSPosData(), false);
    record.setDevice(&device);
    record.setDevice(nullptr);
    QCOMPARE(record.getDevice(), nullptr);
}

void tst_ParsedData::subIds()
{
    ParsedData record;
    const QString task = QStringLiteral("task");
    const QString client = QStringLiteral("client");
    QVERIFY(record.getPluginSubIdKey(task).isEmpty());
    QVERIFY(record.getPluginSubId().isEmpty()); // reading adds no entry

    record.addPluginSubId(task, QStringLiteral("0"));
    record.addPluginSubId(client, QStringLiteral("tcp2:a"));
    record.addPluginSubId(task, QStringLiteral("1"));

    QCOMPARE(record.getPluginSubIdKey(task), QStringLiteral("1"));
    QCOMPARE(record.getPluginSubIdKey(client), QStringLiteral("tcp2:a"));
    QVERIFY(record.getPluginSubIdKey(QStringLiteral("Task")).isEmpty());
    QCOMPARE(record.getPluginSubId().size(), 2);

    // A map that was returned before does not change.
    const QMap<QString, QString> before = record.getPluginSubId();
    record.addPluginSubId(task, QStringLiteral("2"));
    QCOMPARE(before.value(task), QStringLiteral("1"));
}

void tst_ParsedData::fields()
{
    ParsedData record;
    const QString name = QStringLiteral("speed");
    QCOMPARE(record.getField(name), QStringLiteral("<undef>"));

    record.setData({{name, QStringLiteral("12")}, {QStringLiteral("empty"), QString()}});
    QCOMPARE(record.getField(name), QStringLiteral("12"));
    QCOMPARE(record.getField(QStringLiteral("empty")), QString());
    QCOMPARE(record.getField(QStringLiteral("Speed")), QStringLiteral("<undef>"));
    QCOMPARE(record.getField(QString()), QStringLiteral("<undef>"));
    QCOMPARE(record.getData().size(), 2); // reading adds no entry

    record.setData({});
    QCOMPARE(record.getField(name), QStringLiteral("<undef>"));
}

void tst_ParsedData::dataLength()
{
    ParsedData record;
    record.setOriginalMessage(QByteArray(70000, 'x'));
    QCOMPARE(record.getDataLength(), 70000);
    record.setOriginalMessage(QByteArrayLiteral("\0\0\0"));
    QCOMPARE(record.getDataLength(), 3);
    record.setOriginalMessage(QByteArray());
    QCOMPARE(record.getDataLength(), 0);

    // The size is truncated to int: its lower 32 bits are small. No byte is read.
    constexpr qsizetype Large = (qsizetype(1) << 32) + 5;
    record.setOriginalMessage(QByteArray::fromRawData("", Large));
    QCOMPARE(record.getDataLength(), 5);
    record.setOriginalMessage(QByteArray());
}

void tst_ParsedData::dataId_data()
{
    QTest::addColumn<QString>("pluginId");
    QTest::addColumn<QString>("address");
    QTest::addColumn<unsigned short>("port");
    QTest::addColumn<QString>("expected");
    const auto row = [](const char *name, const char *pluginId, const char *address,
                        unsigned short port, const char *expected) {
        QTest::newRow(name) << QString::fromLatin1(pluginId) << QString::fromLatin1(address) << port
                            << QString::fromLatin1(expected);
    };
    row("usual", "p1", "10.0.0.7", 80, "p1-10.0.0.7:80");
    row("no plugin id", "", "10.0.0.7", 80, "-10.0.0.7:80");
    row("all empty", "", "", 0, "-:0");
    row("largest port", "p", "a", 65535, "p-a:65535");
    row("port without leading zeros", "p", "a", 7, "p-a:7");
    row("IPv6", "p", "fe80::1%2", 7446, "p-fe80::1%2:7446");
    row("markers stay", "%1", "%2", 3, "%1-%2:3");
}

void tst_ParsedData::dataId()
{
    QFETCH(QString, pluginId);
    QFETCH(QString, address);
    QFETCH(unsigned short, port);
    ParsedData record;
    record.setPluginId(pluginId);
    record.setPeerAddress(address);
    record.setPeerPort(port);
    QTEST(record.getDataId(), "expected");
}

void tst_ParsedData::madeWhole()
{
    const QMap<QString, QString> subIds{{QStringLiteral("client"), QStringLiteral("c")}};
    const QDateTime time(QDate(2024, 2, 29), QTime(1, 2, 3));
    const ParsedData record("bytes", QStringLiteral("from"), QStringLiteral("10.0.0.7"), 80, subIds,
                            time);
    QCOMPARE(record.getOriginalMessage(), QByteArray("bytes"));
    QCOMPARE(record.getSource(), QStringLiteral("from"));
    QCOMPARE(record.getPeerAddress(), QStringLiteral("10.0.0.7"));
    QCOMPARE(record.getPeerPort(), quint16(80));
    QCOMPARE(record.getPluginSubId(), subIds);
    QCOMPARE(record.getTimestamp(QTimeZone::systemTimeZone()), time.toString(Qt::ISODate));
    QCOMPARE(record.getPluginId(), QString());
    QCOMPARE(record.getFormat(), QString());
    QCOMPARE(record.getDeviceId(), QString());
    QCOMPARE(record.getDevice(), nullptr);
    QVERIFY(record.getData().isEmpty() && !record.isParsed() && !record.isGPSPosData());
}

void tst_ParsedData::timestampIsTheCreationTime()
{
    const QDateTime before = QDateTime::currentDateTime();
    ParsedData record;
    const QDateTime after = QDateTime::currentDateTime();
    const auto &timestamp = memberAt<QDateTime>(record, offsetof(Layout, timestamp));
    QCOMPARE(timestamp.timeSpec(), Qt::LocalTime);
    QVERIFY(before <= timestamp && timestamp <= after);

    const QString first = record.getTimestamp(QTimeZone::utc());
    record.setParsed(true);
    record.setOriginalMessage(QByteArrayLiteral("later"));
    QCOMPARE(record.getTimestamp(QTimeZone::utc()), first);
}

void tst_ParsedData::timestampZones()
{
    // Sets a local time that differs from UTC, independent of the machine's time zone.
    const QByteArray oldZone = qgetenv("TZ");
    const bool hadZone = qEnvironmentVariableIsSet("TZ");
    qputenv("TZ", "XYZ-05:30");
    tzset();
    {
        ParsedData record;
        auto &timestamp = memberAt<QDateTime>(record, offsetof(Layout, timestamp));
        timestamp = QDateTime(QDate(2024, 2, 29), QTime(1, 2, 3, 456));
        const QString local = QStringLiteral("2024-02-29T01:02:03");
        const QString utc = QStringLiteral("2024-02-28T19:32:03Z");

        QCOMPARE(record.getTimestamp(QTimeZone::utc()), utc);
        QCOMPARE(record.getTimestamp(QTimeZone(QByteArrayLiteral("UTC"))), utc);
#if QT_VERSION >= QT_VERSION_CHECK(6, 5, 0)
        QCOMPARE(record.getTimestamp(QTimeZone(QTimeZone::UTC)), utc);
        QCOMPARE(record.getTimestamp(QTimeZone(QTimeZone::LocalTime)), local);
#endif
        QCOMPARE(record.getTimestamp(QTimeZone()), local);
        QCOMPARE(record.getTimestamp(QTimeZone::systemTimeZone()), local);
        QCOMPARE(record.getTimestamp(QTimeZone(3600)), local);
        QCOMPARE(record.getTimestamp(QTimeZone(QByteArrayLiteral("Europe/Berlin"))), local);
        QCOMPARE(timestamp.timeSpec(), Qt::LocalTime); // only a copy was converted
    }
    if (hadZone)
        qputenv("TZ", oldZone);
    else
        qunsetenv("TZ");
    tzset();
}

void tst_ParsedData::gettersReturnCopies()
{
    ParsedData record;
    record.setFormat(QStringLiteral("nmea"));
    record.setOriginalMessage(QByteArrayLiteral("message"));
    record.setData({{QStringLiteral("a"), QStringLiteral("b")}});

    record.getFormat().append(QStringLiteral("changed"));
    record.getOriginalMessage().append("changed");
    record.getData().clear();
    record.getPluginSubId().insert(QStringLiteral("new"), QStringLiteral("value"));

    QCOMPARE(record.getFormat(), QStringLiteral("nmea"));
    QCOMPARE(record.getOriginalMessage(), QByteArrayLiteral("message"));
    QCOMPARE(record.getData().size(), 1);
    QVERIFY(record.getPluginSubId().isEmpty());

    // The record has its own copy of the map.
    QMap<QString, QString> given{{QStringLiteral("x"), QStringLiteral("y")}};
    record.setData(given);
    given.insert(QStringLiteral("x"), QStringLiteral("changed"));
    QCOMPARE(record.getField(QStringLiteral("x")), QStringLiteral("y"));
}

void tst_ParsedData::memberOrder()
{
    QCOMPARE(sizeof(ParsedData), sizeof(Layout));

    Device device;
    ParsedData record;
    record.setFormat(QStringLiteral("format"));
    record.setPluginId(QStringLiteral("plugin"));
    record.addPluginSubId(QStringLiteral("task"), QStringLiteral("3"));
    record.setPeerAddress(QStringLiteral("address"));
    record.setPeerPort(7446);
    record.setOriginalMessage(QByteArrayLiteral("message"));
    record.setDeviceId(QStringLiteral("device"));
    record.setSource(QStringLiteral("source"));
    record.setData({{QStringLiteral("key"), QStringLiteral("value")}});
    record.setParsed(true);
    record.setDevice(&device);

    using Map = QMap<QString, QString>;
    QCOMPARE(memberAt<QString>(record, offsetof(Layout, format)), QStringLiteral("format"));
    QCOMPARE(memberAt<QString>(record, offsetof(Layout, pluginId)), QStringLiteral("plugin"));
    QCOMPARE(memberAt<Map>(record, offsetof(Layout, pluginSubIds)), record.getPluginSubId());
    QCOMPARE(memberAt<QString>(record, offsetof(Layout, peerAddress)), QStringLiteral("address"));
    QCOMPARE(memberAt<unsigned short>(record, offsetof(Layout, peerPort)), 7446);
    QCOMPARE(memberAt<QByteArray>(record, offsetof(Layout, originalMessage)),
             QByteArrayLiteral("message"));
    QCOMPARE(memberAt<QDateTime>(record, offsetof(Layout, timestamp)).toString(Qt::ISODate),
             record.getTimestamp(QTimeZone()));
    QCOMPARE(memberAt<QString>(record, offsetof(Layout, deviceId)), QStringLiteral("device"));
    QCOMPARE(memberAt<QString>(record, offsetof(Layout, source)), QStringLiteral("source"));
    QCOMPARE(memberAt<Map>(record, offsetof(Layout, data)), record.getData());
    QCOMPARE(memberAt<bool>(record, offsetof(Layout, parsed)), true);
    QCOMPARE(memberAt<bool>(record, offsetof(Layout, gpsPosData)), false);
    record.setParsed(false);
    record.setGPSPosData(true);
    QCOMPARE(memberAt<bool>(record, offsetof(Layout, parsed)), false);
    QCOMPARE(memberAt<bool>(record, offsetof(Layout, gpsPosData)), true);
    QCOMPARE(memberAt<Device *>(record, offsetof(Layout, device)), &device);
    // The tests that take the lock check its offset.
}

QTEST_GUILESS_MAIN(tst_ParsedData)
#include "tst_parseddata.moc"
