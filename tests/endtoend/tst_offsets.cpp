// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "tests/kit/hangguard.h"
#include "tests/kit/loadedplugin.h"
#include "tests/kit/loglines.h"
#include "tests/kit/nativesocket.h"

#include <QtNetwork/QTcpSocket>
#include <QtTest/QtTest>

#include <algorithm>

/*!
    Offers that carry their position, through the loaded library.
*/
class tst_Offsets : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init();
    void cleanup();

    void offByDefault_data();
    void offByDefault();
    void stampsOffers();
    void keyIsReadAtEveryStart();
    void keyAppliesToLaterConnections();
    void repeatedDiscardCutsOnce();
    void positionsAtTheLimits_data();
    void positionsAtTheLimits();
    void stampedDiscardThatCutsNothingIsNotAnswered();
    void otherConnectionIsLeftAlone();
    void invalidPositionIsLogged_data();
    void invalidPositionIsLogged();
    void plainDiscardWorksAsBefore();
    void positionsAreIgnoredWhenOff();
    void connectionNumbersAreNotUsedAgain();
    void reusedPortIsAnotherConnection();
    void plainHostLosesNothing_data();
    void plainHostLosesNothing();

private:
    void start(const QJsonValue &offsets = true);
    std::unique_ptr<QTcpSocket> connectDevice();
    bool waitForRecords(qsizetype count);
    void fence();
    QByteArray bytes(qsizetype index) const { return records.at(index)->getOriginalMessage(); }
    QString subid(qsizetype index, const char *key) const
    {
        return records.at(index)->getPluginSubIdKey(QLatin1String(key));
    }
    QByteArray lastOffer(QTcpSocket &device);

    LoadedLibrary library;
    quint16 port = 0;
    std::unique_ptr<IInputPlugin> plugin;
    QList<shared_parsedData> records;
    std::unique_ptr<MessageCapture> capture;
    std::vector<std::unique_ptr<QTcpSocket>> fences;
};

void tst_Offsets::init()
{
    port = freePort();
    capture = std::make_unique<MessageCapture>();
}

void tst_Offsets::cleanup()
{
    plugin.reset();
    fences.clear();
    records.clear();
    capture.reset();
}

void tst_Offsets::start(const QJsonValue &offsets)
{
    QJsonObject config = tcpConfig(port);
    config.insert(QStringLiteral("threadpoolSize"), 1);
    if (!offsets.isUndefined())
        config.insert(QStringLiteral("offsets"), offsets);
    plugin = library.create(config);
    connect(plugin.get(), &IInputPlugin::receivedData, this,
            [this](const shared_parsedData &record) { records.append(record); });
    QVERIFY(plugin->start());
    QVERIFY(isListening(*plugin));
}

std::unique_ptr<QTcpSocket> tst_Offsets::connectDevice()
{
    auto device = std::make_unique<QTcpSocket>();
    device->connectToHost(testAddress(), port);
    if (!device->waitForConnected())
        qFatal("%s", qPrintable(device->errorString()));
    return device;
}

bool tst_Offsets::waitForRecords(qsizetype count)
{
    return QTest::qWaitFor([&] { return records.size() >= count; }, HangGuardMs);
}

// With one worker, a new connection is adopted after every cut posted before it.
void tst_Offsets::fence()
{
    fences.push_back(connectDevice()); // stays open: its end would cause an offer
    const qsizetype before = records.size();
    fences.back()->write("fence");
    QVERIFY(waitForRecords(before + 1));
    QCOMPARE(records.size(), before + 1); // there was no other offer meanwhile
    QCOMPARE(records.takeLast()->getOriginalMessage(), QByteArray("fence"));
}

// The bytes that are left in the connection's buffer.
QByteArray tst_Offsets::lastOffer(QTcpSocket &device)
{
    fence();
    const qsizetype before = records.size();
    device.write("."); // so that there is something to offer
    device.disconnectFromHost();
    if (!waitForRecords(before + 1))
        return "nothing came";
    QByteArray last;
    const auto ended = [&] {
        last = records.last()->getOriginalMessage();
        return last.endsWith('.');
    };
    return QTest::qWaitFor(ended, HangGuardMs) ? last.chopped(1) : "no end";
}

void tst_Offsets::offByDefault_data()
{
    QTest::addColumn<QJsonValue>("offsets");
    QTest::newRow("absent") << QJsonValue(QJsonValue::Undefined);
    QTest::newRow("false") << QJsonValue(false);
    QTest::newRow("text") << QJsonValue(QStringLiteral("true"));
    QTest::newRow("number") << QJsonValue(1);
}

void tst_Offsets::offByDefault()
{
    QFETCH(QJsonValue, offsets);
    start(offsets);
    const auto device = connectDevice();
    device->write("abc");
    QVERIFY(waitForRecords(1));
    QCOMPARE(records.first()->getPluginSubId().keys(),
             QStringList({QStringLiteral("client"), QStringLiteral("task")}));
}

void tst_Offsets::stampsOffers()
{
    start();
    const auto device = connectDevice();
    device->write("abcd" + QByteArray(30, 'x'));
    QVERIFY(waitForRecords(1));
    QCOMPARE(subid(0, "offset"), QStringLiteral("0"));
    const QString connection = subid(0, "connection");
    QVERIFY(connection.toULongLong() > 0);

    plugin->discard(4, records.at(0)->getPluginSubId());
    QVERIFY(waitForRecords(2));
    QCOMPARE(bytes(1), QByteArray(30, 'x'));
    QCOMPARE(subid(1, "offset"), QStringLiteral("4"));
    QCOMPARE(subid(1, "connection"), connection);

    plugin->discard(30, records.at(1)->getPluginSubId());
    fence();
    device->write("end");
    device->disconnectFromHost();
    QVERIFY(waitForRecords(3));
    QCOMPARE(subid(2, "offset"), QStringLiteral("34"));
    QVERIFY(bytes(2).startsWith('e'));
}

void tst_Offsets::keyIsReadAtEveryStart()
{
    start();
    plugin->stop();
    plugin->setConfig(tcpConfig(port));
    QVERIFY(plugin->start());
    const auto plain = connectDevice();
    plain->write("abc");
    QVERIFY(waitForRecords(1));
    QVERIFY(subid(0, "offset").isNull());
    plugin->stop();
    QVERIFY(waitForRecords(2));

    QJsonObject config = tcpConfig(port);
    config.insert(QStringLiteral("offsets"), true);
    plugin->setConfig(config);
    QVERIFY(plugin->start());
    const auto stamped = connectDevice();
    stamped->write("abc");
    QVERIFY(waitForRecords(3));
    QCOMPARE(subid(2, "offset"), QStringLiteral("0"));
}

// Connections that are already open do not change.
void tst_Offsets::keyAppliesToLaterConnections()
{
    start(false);
    const auto plain = connectDevice();
    plain->write("plain");
    QVERIFY(waitForRecords(1));

    QJsonObject config = plugin->config;
    config.insert(QStringLiteral("offsets"), true);
    plugin->setConfig(config);
    QVERIFY(plugin->start());
    const auto stamped = connectDevice();
    stamped->write("stamped");
    QVERIFY(waitForRecords(2));
    QCOMPARE(bytes(1), QByteArray("stamped"));
    QCOMPARE(subid(1, "offset"), QStringLiteral("0"));

    plain->disconnectFromHost();
    QVERIFY(waitForRecords(3));
    QCOMPARE(bytes(2), QByteArray("plain"));
    QVERIFY(subid(2, "offset").isNull());
    QVERIFY(subid(2, "connection").isNull());
}

void tst_Offsets::repeatedDiscardCutsOnce()
{
    start();
    const auto device = connectDevice();
    device->write("abcdef");
    QVERIFY(waitForRecords(1));
    for (int n = 0; n < 3; ++n)
        plugin->discard(4, records.first()->getPluginSubId());
    plugin->discard(2, records.first()->getPluginSubId());
    QCOMPARE(lastOffer(*device), QByteArray("ef"));
}

void tst_Offsets::positionsAtTheLimits_data()
{
    QTest::addColumn<QString>("offset");
    QTest::addColumn<int>("len");
    QTest::addColumn<QByteArray>("left");
    const QString greatest = QString::number(std::numeric_limits<quint64>::max());
    QTest::newRow("the front") << QStringLiteral("0") << 0 << QByteArray("abcdef");
    QTest::newRow("before the front") << QStringLiteral("0") << -5 << QByteArray("abcdef");
    QTest::newRow("one byte") << QStringLiteral("0") << 1 << QByteArray("bcdef");
    QTest::newRow("backwards") << QStringLiteral("5") << -2 << QByteArray("def");
    QTest::newRow("all") << QStringLiteral("6") << 0 << QByteArray();
    QTest::newRow("beyond the end") << QStringLiteral("3") << 1000 << QByteArray();
    QTest::newRow("far beyond") << greatest << 1 << QByteArray();
    QTest::newRow("leading zeros") << QStringLiteral("0002") << 0 << QByteArray("cdef");
}

void tst_Offsets::positionsAtTheLimits()
{
    QFETCH(QString, offset);
    QFETCH(int, len);
    QFETCH(QByteArray, left);
    start();
    const auto device = connectDevice();
    device->write("abcdef");
    QVERIFY(waitForRecords(1));
    auto subids = records.first()->getPluginSubId();
    subids.insert(QStringLiteral("offset"), offset);
    plugin->discard(len, subids);
    QCOMPARE(lastOffer(*device), left);
}

void tst_Offsets::stampedDiscardThatCutsNothingIsNotAnswered()
{
    start();
    const auto device = connectDevice();
    const QByteArray message(30, 'x');
    device->write(message);
    QVERIFY(waitForRecords(1));
    plugin->discard(0, records.first()->getPluginSubId());
    fence(); // fails if another record comes
    plugin->discard(1, records.first()->getPluginSubId());
    QVERIFY(waitForRecords(2)); // 29 bytes are left: enough for an offer
    QCOMPARE(bytes(1), message.mid(1));
    plugin->discard(1, records.first()->getPluginSubId());
    fence();
}

void tst_Offsets::otherConnectionIsLeftAlone()
{
    start();
    const auto device = connectDevice();
    device->write("abcdef");
    QVERIFY(waitForRecords(1));
    auto subids = records.first()->getPluginSubId();
    subids.insert(QStringLiteral("connection"),
                  QString::number(subid(0, "connection").toULongLong() + 1000));
    capture->take();
    plugin->discard(6, subids);
    QCOMPARE(takeLog(), QStringList());
    QCOMPARE(lastOffer(*device), QByteArray("abcdef"));
}

void tst_Offsets::invalidPositionIsLogged_data()
{
    QTest::addColumn<QString>("key");
    QTest::addColumn<QString>("value");
    for (const char *key : {"offset", "connection"}) {
        for (const char *value :
             {"", "x", "-1", "+1", " 1", "1 ", "0x1", "1.0", "18446744073709551616"})
            QTest::addRow("%s '%s'", key, value)
                    << QString::fromLatin1(key) << QString::fromLatin1(value);
    }
}

void tst_Offsets::invalidPositionIsLogged()
{
    QFETCH(QString, key);
    QFETCH(QString, value);
    start();
    const auto device = connectDevice();
    device->write("abcdef");
    QVERIFY(waitForRecords(1));
    auto subids = records.first()->getPluginSubId();
    subids.insert(key, value);
    takeLog();
    plugin->discard(6, subids);
    QCOMPARE(takeLog(),
             QStringList(QStringLiteral("D: TcpTask2: discard with invalid position ") + value));
    QCOMPARE(lastOffer(*device), QByteArray("abcdef"));
}

void tst_Offsets::plainDiscardWorksAsBefore()
{
    start();
    const auto device = connectDevice();
    device->write("abcdef");
    QVERIFY(waitForRecords(1));
    auto subids = records.first()->getPluginSubId();
    subids.remove(QStringLiteral("offset"));
    plugin->discard(2, subids);
    // Without "offset", the plugin ignores "connection".
    subids.insert(QStringLiteral("connection"), QStringLiteral("nonsense"));
    plugin->discard(2, subids);
    QCOMPARE(lastOffer(*device), QByteArray("ef"));
    QCOMPARE(records.last()->getPluginSubIdKey(QStringLiteral("offset")), QStringLiteral("4"));
}

void tst_Offsets::positionsAreIgnoredWhenOff()
{
    start(false);
    const auto device = connectDevice();
    device->write("abcdef");
    QVERIFY(waitForRecords(1));
    auto subids = records.first()->getPluginSubId();
    subids.insert(QStringLiteral("offset"), QStringLiteral("nonsense"));
    subids.insert(QStringLiteral("connection"), QStringLiteral("5"));
    capture->take();
    plugin->discard(2, subids);
    plugin->discard(2, subids);
    QCOMPARE(takeLog(), QStringList());
    QCOMPARE(lastOffer(*device), QByteArray("ef"));
}

void tst_Offsets::connectionNumbersAreNotUsedAgain()
{
    constexpr int Cycles = 3;
    constexpr int Connections = 5;
    QSet<QString> seen;
    for (int cycle = 0; cycle < Cycles; ++cycle) {
        start();
        std::vector<std::unique_ptr<QTcpSocket>> devices;
        for (int n = 0; n < Connections; ++n) {
            devices.push_back(connectDevice());
            devices.back()->write("x");
        }
        QVERIFY(waitForRecords(Connections));
        plugin.reset();
        for (qsizetype n = 0; n < records.size(); ++n)
            seen.insert(subid(n, "connection"));
        records.clear();
    }
    QCOMPARE(seen.size(), Cycles * Connections);
}

// The new client has the id of the old one. A discard for the old connection must not reach it.
void tst_Offsets::reusedPortIsAnotherConnection()
{
    start();
    NativeSocket first = NativeSocket::unconnected(testAddress());
    QVERIFY(first.bind(testAddress(), 0) && first.connect(testAddress(), port));
    const quint16 devicePort = first.localPort();
    QVERIFY(first.send("first"));
    QVERIFY(waitForRecords(1));
    first.reset();
    QTRY_VERIFY_WITH_TIMEOUT(!plugin->getStatus().contains(QLatin1String("tcp2:")), HangGuardMs);
    QVERIFY(waitForRecords(2)); // the last offer of the first connection

    NativeSocket second = NativeSocket::unconnected(testAddress());
    QVERIFY(second.bind(testAddress(), devicePort) && second.connect(testAddress(), port));
    QVERIFY(second.send("second"));
    QVERIFY(waitForRecords(3));
    QCOMPARE(subid(2, "client"), subid(0, "client"));
    QCOMPARE(subid(2, "offset"), QStringLiteral("0"));
    QVERIFY(subid(2, "connection") != subid(0, "connection"));

    plugin->discard(5, records.at(0)->getPluginSubId());
    fence();
    QVERIFY(second.send("."));
    second.close();
    QTRY_VERIFY_WITH_TIMEOUT(records.last()->getOriginalMessage().endsWith('.'), HangGuardMs);
    QCOMPARE(records.last()->getOriginalMessage(), QByteArray("second."));
}

void tst_Offsets::plainHostLosesNothing_data()
{
    QTest::addColumn<QList<int>>("answers"); // which offers the host answers, in this order
    QTest::addColumn<bool>("inParts");
    QTest::newRow("late") << QList<int>{0, 1, 2} << false;
    QTest::newRow("twice") << QList<int>{0, 0, 1, 1, 2, 2} << false;
    QTest::newRow("in parts") << QList<int>{0, 1, 2} << true;
    QTest::newRow("backwards") << QList<int>{2, 1, 0} << false;
    QTest::newRow("only the first") << QList<int>{0} << false;
}

// The host ignores positions. It receives three offers that begin with the same bytes before it
// answers the first. It answers each one with the number of bytes that it has read in that offer.
void tst_Offsets::plainHostLosesNothing()
{
    QFETCH(QList<int>, answers);
    QFETCH(bool, inParts);
    start();
    const auto device = connectDevice();
    QByteArray sent;
    const auto sendUntilOffered = [&] {
        sent += "message " + QByteArray::number(sent.size()) + '\n';
        device->write(sent.mid(sent.lastIndexOf('m')));
        return records.size() >= 3;
    };
    QVERIFY(QTest::qWaitFor(sendUntilOffered, HangGuardMs));

    qsizetype read = 0;
    const QList<shared_parsedData> offers = records;
    for (int n : answers) {
        const QByteArray offer = offers.at(n)->getOriginalMessage();
        QVERIFY(sent.startsWith(offer));
        read = std::max(read, offer.size());
        if (inParts)
            plugin->discard(static_cast<int>(offer.indexOf('\n') + 1),
                            offers.at(n)->getPluginSubId());
        plugin->discard(static_cast<int>(offer.size()), offers.at(n)->getPluginSubId());
    }
    // A new connection is adopted after all cuts that were posted before it.
    const auto later = connectDevice();
    later->write("later");
    const auto isLater = [](const shared_parsedData &record) {
        return record->getOriginalMessage() == "later";
    };
    QTRY_VERIFY_WITH_TIMEOUT(std::any_of(records.cbegin(), records.cend(), isLater), HangGuardMs);

    sent += "end";
    device->write("end");
    device->disconnectFromHost();
    QTRY_VERIFY_WITH_TIMEOUT(records.last()->getOriginalMessage().endsWith("end"), HangGuardMs);
    QCOMPARE(records.last()->getOriginalMessage(), sent.mid(read));
}

QTEST_GUILESS_MAIN(tst_Offsets)
#include "tst_offsets.moc"
