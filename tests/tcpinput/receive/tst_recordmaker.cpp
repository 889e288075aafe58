// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "tcpinput/receive/localsecond.h"
#include "tcpinput/receive/recordmaker.h"
#include "tests/kit/hangguard.h"

#include <QtTest/QTest>

#include <limits>

namespace {

Endpoints endpoints()
{
    return {QHostAddress(QStringLiteral("10.1.2.3")), QHostAddress(QStringLiteral("192.168.0.10")),
            40001, 5000};
}

const QDateTime Time(QDate(2024, 2, 29), QTime(1, 2, 3));

QMap<QString, QString> plainSubIds(const QString &client)
{
    return {{QStringLiteral("client"), client}, {QStringLiteral("task"), QStringLiteral("3")}};
}

QMap<QString, QString> stampedSubIds(const QString &client, const char *connection,
                                     const char *offset)
{
    QMap<QString, QString> subIds = plainSubIds(client);
    subIds.insert(QStringLiteral("connection"), QLatin1String(connection));
    subIds.insert(QStringLiteral("offset"), QLatin1String(offset));
    return subIds;
}

} // namespace

class tst_RecordMaker : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void record();
    void stampedRecord();
    void recordsStayAsTheyAre();
    void followsTheId();
    void namesTheEndpoints_data();
    void namesTheEndpoints();
    void localSecond();
};

void tst_RecordMaker::record()
{
    RecordMaker maker(3, endpoints());
    for (const char *data : {"abc", "", "abcdef"}) {
        const shared_parsedData record = maker.make(data, QStringLiteral("id"), Time);
        QCOMPARE(record->getOriginalMessage(), QByteArray(data));
        QCOMPARE(record->getPeerAddress(), QStringLiteral("10.1.2.3"));
        QCOMPARE(record->getPeerPort(), quint16(40001));
        QCOMPARE(record->getSource(), QStringLiteral("TCP:tcp2:192.168.0.10:5000-10.1.2.3:40001"));
        QCOMPARE(record->getPluginSubId(), plainSubIds(QStringLiteral("id")));
        QCOMPARE(record->getPluginId(), QString());
        QCOMPARE(record->getTimestamp(QTimeZone::systemTimeZone()), Time.toString(Qt::ISODate));
        QCOMPARE(record->getTimestamp(QTimeZone::utc()), Time.toUTC().toString(Qt::ISODate));
    }
}

void tst_RecordMaker::stampedRecord()
{
    RecordMaker maker(3, endpoints());
    RecordMaker::Stamp stamp{7, 0};
    const auto subIds = [&] {
        return maker.make("abc", QStringLiteral("id"), Time, &stamp)->getPluginSubId();
    };
    QCOMPARE(subIds(), stampedSubIds(QStringLiteral("id"), "7", "0"));
    stamp.position = 1;
    QCOMPARE(subIds(), stampedSubIds(QStringLiteral("id"), "7", "1"));
    stamp.position = std::numeric_limits<quint64>::max();
    QCOMPARE(subIds(), stampedSubIds(QStringLiteral("id"), "7", "18446744073709551615"));
}

// A record does not change, whatever is made later and whatever a host does with another one.
void tst_RecordMaker::recordsStayAsTheyAre()
{
    RecordMaker maker(3, endpoints());
    RecordMaker::Stamp stamp{7, 10};
    const shared_parsedData first = maker.make("abc", QStringLiteral("id"), Time, &stamp);
    stamp.position = 20;
    const shared_parsedData second = maker.make("abc", QStringLiteral("id"), Time, &stamp);
    second->addPluginSubId(QStringLiteral("client"), QStringLiteral("the host's"));
    stamp.position = 30;
    const shared_parsedData third = maker.make("abc", QStringLiteral("id"), Time, &stamp);
    const shared_parsedData fourth = maker.make("abc", QStringLiteral("other"), Time, &stamp);

    QCOMPARE(first->getPluginSubId(), stampedSubIds(QStringLiteral("id"), "7", "10"));
    QCOMPARE(second->getPluginSubId(), stampedSubIds(QStringLiteral("the host's"), "7", "20"));
    QCOMPARE(third->getPluginSubId(), stampedSubIds(QStringLiteral("id"), "7", "30"));
    QCOMPARE(fourth->getPluginSubId(), stampedSubIds(QStringLiteral("other"), "7", "30"));
}

void tst_RecordMaker::followsTheId()
{
    RecordMaker maker(3, endpoints());
    for (const QString &id :
         {QStringLiteral("a"), QStringLiteral("b"), QString(), QStringLiteral("a")})
        QCOMPARE(maker.make("abc", id, Time)->getPluginSubId(), plainSubIds(id));
}

void tst_RecordMaker::namesTheEndpoints_data()
{
    QTest::addColumn<QString>("peer");
    QTest::addColumn<QString>("local");
    QTest::addColumn<quint16>("peerPort");
    QTest::addColumn<quint16>("localPort");
    QTest::addColumn<QString>("source");
    const auto row = [](const char *peer, const char *local, quint16 peerPort, quint16 localPort,
                        const char *source) {
        QTest::newRow(source) << QString::fromLatin1(peer) << QString::fromLatin1(local) << peerPort
                              << localPort << QString::fromLatin1(source);
    };
    row("10.1.2.4", "192.168.0.10", 40001, 5000, "192.168.0.10:5000-10.1.2.4:40001");
    row("10.1.2.3", "192.168.0.10", 65535, 1, "192.168.0.10:1-10.1.2.3:65535");
    row("2001:db8::7", "::1", 40001, 5000, "::1:5000-2001:db8::7:40001");
    row("", "", 0, 0, ":0-:0"); // unknown endpoints
}

void tst_RecordMaker::namesTheEndpoints()
{
    QFETCH(QString, peer);
    QFETCH(QString, local);
    QFETCH(quint16, peerPort);
    QFETCH(quint16, localPort);
    QFETCH(QString, source);
    RecordMaker maker(0, {QHostAddress(peer), QHostAddress(local), peerPort, localPort});
    for (int turn = 0; turn < 2; ++turn) {
        const shared_parsedData record = maker.make("abc", QString(), Time);
        QCOMPARE(record->getSource(), QLatin1String("TCP:tcp2:") + source);
        QCOMPARE(record->getPeerAddress(), peer);
        QCOMPARE(record->getPeerPort(), peerPort);
        QCOMPARE(record->getPluginSubIdKey(QStringLiteral("task")), QStringLiteral("0"));
        QVERIFY(record->getPluginSubId().contains(QStringLiteral("client")));
    }
}

void tst_RecordMaker::localSecond()
{
    LocalSecond clock;
    const qint64 before = QDateTime::currentSecsSinceEpoch();
    const QDateTime first = clock.now();
    const qint64 after = QDateTime::currentSecsSinceEpoch();
    QCOMPARE(first.timeSpec(), Qt::LocalTime);
    QVERIFY(before <= first.toSecsSinceEpoch() && first.toSecsSinceEpoch() <= after);
    QTRY_VERIFY_WITH_TIMEOUT(clock.now() > first, HangGuardMs); // the clock goes on
    QVERIFY(clock.now().toSecsSinceEpoch() <= QDateTime::currentSecsSinceEpoch());
    // Also when the clock is set back.
    for (const qint64 second : {before + 1, before + 1, before, qint64(0), qint64(-1), before}) {
        QCOMPARE(clock.at(second), QDateTime::fromSecsSinceEpoch(second));
        QCOMPARE(clock.at(second).timeSpec(), Qt::LocalTime);
    }
}

QTEST_GUILESS_MAIN(tst_RecordMaker)
#include "tst_recordmaker.moc"
