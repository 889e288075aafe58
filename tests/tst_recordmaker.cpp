// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "tcpinput/recordmaker.h"

#include <QtTest/QTest>

#include <limits>

namespace {

Connection offer(const QByteArray &data = "abc")
{
    Connection c;
    c.setData(data);
    c.setSenderHost(QHostAddress(QStringLiteral("10.1.2.3")));
    c.setSenderPort(40001);
    c.setLocalAddress(QHostAddress(QStringLiteral("192.168.0.10")));
    c.setLocalPort(5000);
    return c;
}

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
    void followsTheEndpoints_data();
    void followsTheEndpoints();
    void ofNothing();
};

void tst_RecordMaker::record()
{
    RecordMaker maker(3);
    for (const char *data : {"abc", "", "abcdef"}) {
        const shared_parsedData record = maker.make(offer(data), QStringLiteral("id"));
        QCOMPARE(record->getOriginalMessage(), QByteArray(data));
        QCOMPARE(record->getPeerAddress(), QStringLiteral("10.1.2.3"));
        QCOMPARE(record->getPeerPort(), quint16(40001));
        QCOMPARE(record->getSource(), QStringLiteral("TCP:tcp2:192.168.0.10:5000-10.1.2.3:40001"));
        QCOMPARE(record->getPluginSubId(), plainSubIds(QStringLiteral("id")));
        QCOMPARE(record->getPluginId(), QString());
    }
}

void tst_RecordMaker::stampedRecord()
{
    RecordMaker maker(3);
    RecordMaker::Stamp stamp{7, 0};
    const auto subIds = [&] {
        return maker.make(offer(), QStringLiteral("id"), &stamp)->getPluginSubId();
    };
    QCOMPARE(subIds(), stampedSubIds(QStringLiteral("id"), "7", "0"));
    stamp.position = 1;
    QCOMPARE(subIds(), stampedSubIds(QStringLiteral("id"), "7", "1"));
    stamp.position = std::numeric_limits<quint64>::max();
    QCOMPARE(subIds(), stampedSubIds(QStringLiteral("id"), "7", "18446744073709551615"));
}

// Whatever is made later, and whatever a host does with one of them.
void tst_RecordMaker::recordsStayAsTheyAre()
{
    RecordMaker maker(3);
    RecordMaker::Stamp stamp{7, 10};
    const shared_parsedData first = maker.make(offer(), QStringLiteral("id"), &stamp);
    stamp.position = 20;
    const shared_parsedData second = maker.make(offer(), QStringLiteral("id"), &stamp);
    second->addPluginSubId(QStringLiteral("client"), QStringLiteral("the host's"));
    stamp.position = 30;
    const shared_parsedData third = maker.make(offer(), QStringLiteral("id"), &stamp);
    const shared_parsedData fourth = maker.make(offer(), QStringLiteral("other"), &stamp);

    QCOMPARE(first->getPluginSubId(), stampedSubIds(QStringLiteral("id"), "7", "10"));
    QCOMPARE(second->getPluginSubId(), stampedSubIds(QStringLiteral("the host's"), "7", "20"));
    QCOMPARE(third->getPluginSubId(), stampedSubIds(QStringLiteral("id"), "7", "30"));
    QCOMPARE(fourth->getPluginSubId(), stampedSubIds(QStringLiteral("other"), "7", "30"));
}

void tst_RecordMaker::followsTheId()
{
    RecordMaker maker(3);
    for (const QString &id :
         {QStringLiteral("a"), QStringLiteral("b"), QString(), QStringLiteral("a")})
        QCOMPARE(maker.make(offer(), id)->getPluginSubId(), plainSubIds(id));
}

void tst_RecordMaker::followsTheEndpoints_data()
{
    QTest::addColumn<Connection>("changed");
    QTest::addColumn<QString>("source");
    Connection c = offer();
    c.setSenderHost(QHostAddress(QStringLiteral("10.1.2.4")));
    QTest::newRow("peer address") << c << QStringLiteral("192.168.0.10:5000-10.1.2.4:40001");
    c = offer();
    c.setSenderPort(40002);
    QTest::newRow("peer port") << c << QStringLiteral("192.168.0.10:5000-10.1.2.3:40002");
    c = offer();
    c.setLocalAddress(QHostAddress(QStringLiteral("::1")));
    QTest::newRow("local address") << c << QStringLiteral("::1:5000-10.1.2.3:40001");
    c = offer();
    c.setLocalPort(5001);
    QTest::newRow("local port") << c << QStringLiteral("192.168.0.10:5001-10.1.2.3:40001");
}

void tst_RecordMaker::followsTheEndpoints()
{
    QFETCH(Connection, changed);
    QFETCH(QString, source);
    RecordMaker maker(3);
    const QString id = QStringLiteral("id");
    const QString before = maker.make(offer(), id)->getSource();
    const shared_parsedData record = maker.make(changed, id);
    QCOMPARE(record->getSource(), QLatin1String("TCP:tcp2:") + source);
    QCOMPARE(record->getPeerAddress(), changed.getSenderHost().toString());
    QCOMPARE(record->getPeerPort(), changed.getSenderPort());
    QCOMPARE(record->getPluginSubId(), plainSubIds(id));
    QCOMPARE(maker.make(offer(), id)->getSource(), before);
}

// Endpoints that nobody knows have a name, too: it is made although they equal the initial ones.
void tst_RecordMaker::ofNothing()
{
    const shared_parsedData record = RecordMaker(0).make(Connection(), QString());
    QCOMPARE(record->getSource(), QStringLiteral("TCP:tcp2::0-:0"));
    QCOMPARE(record->getPluginSubIdKey(QStringLiteral("task")), QStringLiteral("0"));
    QVERIFY(record->getPluginSubId().contains(QStringLiteral("client")));
}

QTEST_GUILESS_MAIN(tst_RecordMaker)
#include "tst_recordmaker.moc"
