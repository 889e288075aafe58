// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "tests/kit/certificates.h"
#include "tests/kit/hangguard.h"
#include "tests/kit/loadedplugin.h"
#include "tests/kit/loglines.h"
#include "tests/kit/nativesocket.h"
#include "tests/kit/tlsdevice.h"
#include "tests/kit/tlsengines.h"

#include <QtTest/QtTest>

/*!
    The record that reports the end of a connection, through the loaded library.
*/
class tst_Ends : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init();
    void cleanup();

    void offByDefault_data();
    void offByDefault();
    void peer_data();
    void peer();
    void reset();
    void idle();
    void stop();
    void destruction();
    void garbageInTls_data();
    void garbageInTls();
    void endOfTls_data();
    void endOfTls();
    void comesBehindTheLastRecord();
    void positionIsBehindTheLastByte();
    void withoutOffsetsThereIsNoPosition();
    void connectionWithoutRecords_data();
    void connectionWithoutRecords();
    void manyConnections();
    void refusesOtherValues_data();
    void refusesOtherValues();

private:
    using Row = std::pair<QByteArray, QString>; // bytes; reason of the end, null if it is none

    void start(QJsonObject more);
    NativeSocket connectDevice() const;
    bool connectAndSend(TlsDevice &device) const;
    bool waitForRecords(qsizetype count);
    QList<Row> rows() const;
    QString subid(qsizetype index, const char *key) const
    {
        return records.at(index)->getPluginSubIdKey(QLatin1String(key));
    }

    LoadedLibrary library;
    quint16 port = 0;
    std::unique_ptr<IInputPlugin> plugin;
    QList<shared_parsedData> records;
    std::unique_ptr<MessageCapture> capture;
};

void tst_Ends::init()
{
    port = freePort();
    capture = std::make_unique<MessageCapture>();
}

void tst_Ends::cleanup()
{
    plugin.reset();
    records.clear();
    capture.reset();
}

void tst_Ends::start(QJsonObject more)
{
    const QJsonObject base = tcpConfig(port);
    for (auto entry = base.begin(); entry != base.end(); ++entry)
        more.insert(entry.key(), *entry);
    plugin = library.create(more);
    connect(plugin.get(), &IInputPlugin::receivedData, this,
            [this](const shared_parsedData &record) { records.append(record); });
    QVERIFY(plugin->start());
    QVERIFY(isListening(*plugin));
}

NativeSocket tst_Ends::connectDevice() const
{
    return NativeSocket::connectedTo(testAddress(), port);
}

// The device runs in another thread: this thread does the plugin's part of the handshake.
bool tst_Ends::connectAndSend(TlsDevice &device) const
{
    bool sent = false;
    const std::unique_ptr<QThread> thread(QThread::create([&] {
        if (!device.connect(testAddress(), port) || !device.handshake())
            return;
        device.write("abc");
        sent = device.flush();
    }));
    thread->start();
    return QTest::qWaitFor([&] { return thread->isFinished(); }, HangGuardMs) && thread->wait()
            && sent;
}

bool tst_Ends::waitForRecords(qsizetype count)
{
    return QTest::qWaitFor([&] { return records.size() >= count; }, HangGuardMs);
}

QList<tst_Ends::Row> tst_Ends::rows() const
{
    QList<Row> result;
    for (const auto &record : records) {
        result.append(
                {record->getOriginalMessage(), record->getPluginSubIdKey(QStringLiteral("end"))});
    }
    return result;
}

void tst_Ends::offByDefault_data()
{
    QTest::addColumn<QJsonObject>("config");
    QTest::newRow("absent") << QJsonObject();
    QTest::newRow("false") << QJsonObject{{QStringLiteral("ends"), false}};
}

void tst_Ends::offByDefault()
{
    QFETCH(QJsonObject, config);
    start(config);
    NativeSocket device = connectDevice();
    QVERIFY(device.send("abc"));
    device.close();
    QVERIFY(waitForRecords(1));
    plugin.reset(); // delivers all remaining records
    for (const Row &row : rows())
        QCOMPARE(row, Row("abc", QString()));
}

void tst_Ends::peer_data()
{
    QTest::addColumn<bool>("half");
    QTest::newRow("close") << false;
    QTest::newRow("half close") << true;
}

void tst_Ends::peer()
{
    QFETCH(bool, half);
    start({{QStringLiteral("ends"), true}});
    NativeSocket device = connectDevice();
    QVERIFY(device.send("abc"));
    QVERIFY(waitForRecords(1));
    plugin->discard(3, records.first()->getPluginSubId());
    if (half)
        device.finish();
    else
        device.close();
    QVERIFY(waitForRecords(2));
    QCOMPARE(rows(), QList<Row>({{"abc", {}}, {"", QStringLiteral("peer")}}));
    QCOMPARE(subid(1, "client"), subid(0, "client"));
    QCOMPARE(subid(1, "task"), subid(0, "task"));
    QCOMPARE(records.at(1)->getSource(), records.at(0)->getSource());
    QCOMPARE(records.at(1)->getPeerPort(), records.at(0)->getPeerPort());
    QCOMPARE(records.at(1)->getPluginId(), QStringLiteral("t"));
}

void tst_Ends::reset()
{
    start({{QStringLiteral("ends"), true}});
    NativeSocket device = connectDevice();
    QVERIFY(device.send("abc"));
    QVERIFY(waitForRecords(1));
    plugin->discard(3, records.first()->getPluginSubId());
    device.reset();
    QVERIFY(waitForRecords(2));
    QCOMPARE(rows(), QList<Row>({{"abc", {}}, {"", QStringLiteral("reset")}}));
}

void tst_Ends::idle()
{
    start({{QStringLiteral("ends"), true}, {QStringLiteral("timeout"), 1}});
    const NativeSocket device = connectDevice();
    QVERIFY(device.send("abc"));
    QVERIFY(waitForRecords(3));
    QCOMPARE(rows(), QList<Row>({{"abc", {}}, {"abc", {}}, {"", QStringLiteral("idle")}}));
}

void tst_Ends::stop()
{
    start({{QStringLiteral("ends"), true}});
    const NativeSocket device = connectDevice();
    QVERIFY(device.send("abc"));
    QVERIFY(waitForRecords(1));
    plugin->stop();
    QVERIFY(waitForRecords(3));
    QCOMPARE(rows(), QList<Row>({{"abc", {}}, {"abc", {}}, {"", QStringLiteral("stop")}}));
}

void tst_Ends::destruction()
{
    start({{QStringLiteral("ends"), true}});
    const NativeSocket device = connectDevice();
    QVERIFY(device.send("abc"));
    QVERIFY(waitForRecords(1));
    plugin.reset();
    QCOMPARE(rows(), QList<Row>({{"abc", {}}, {"abc", {}}, {"", QStringLiteral("stop")}}));
}

void tst_Ends::garbageInTls_data()
{
    QTest::addColumn<int>("version");
    QTest::addColumn<QString>("engine");
    for (const char *engine : TlsEngines) {
        QTest::addRow("TLS 1.2, %s", engine) << TLS1_2_VERSION << QString::fromLatin1(engine);
        QTest::addRow("TLS 1.3, %s", engine) << TLS1_3_VERSION << QString::fromLatin1(engine);
    }
}

void tst_Ends::garbageInTls()
{
    QFETCH(int, version);
    QFETCH(QString, engine);
    start({{QStringLiteral("ends"), true},
           {QStringLiteral("ssl"), withEngine(serverTls(), engine)}});
    TlsDevice device(version);
    QVERIFY(connectAndSend(device));
    QVERIFY(waitForRecords(1));
    QVERIFY(device.socket.send(QByteArray(100, 'x')));
    QVERIFY(waitForRecords(3));
    QCOMPARE(rows(), QList<Row>({{"abc", {}}, {"abc", {}}, {"", QStringLiteral("tls")}}));
}

void tst_Ends::endOfTls_data()
{
    garbageInTls_data();
}

void tst_Ends::endOfTls()
{
    QFETCH(int, version);
    QFETCH(QString, engine);
    start({{QStringLiteral("ends"), true},
           {QStringLiteral("ssl"), withEngine(serverTls(), engine)}});
    TlsDevice device(version);
    QVERIFY(connectAndSend(device));
    QVERIFY(waitForRecords(1));
    device.socket.close();
    QVERIFY(waitForRecords(3));
    QCOMPARE(rows(), QList<Row>({{"abc", {}}, {"abc", {}}, {"", QStringLiteral("peer")}}));
}

void tst_Ends::comesBehindTheLastRecord()
{
    start({{QStringLiteral("ends"), true}});
    NativeSocket device = connectDevice();
    QVERIFY(device.send("abc"));
    QVERIFY(waitForRecords(1));
    QVERIFY(device.send("de")); // too soon after the first offer: offered only at the end
    device.close();
    QVERIFY(waitForRecords(3));
    QCOMPARE(rows(), QList<Row>({{"abc", {}}, {"abcde", {}}, {"", QStringLiteral("peer")}}));
}

void tst_Ends::positionIsBehindTheLastByte()
{
    start({{QStringLiteral("ends"), true}, {QStringLiteral("offsets"), true}});
    NativeSocket device = connectDevice();
    QVERIFY(device.send("abcdef"));
    QVERIFY(waitForRecords(1));
    plugin->discard(4, records.first()->getPluginSubId());
    device.close();
    QVERIFY(QTest::qWaitFor([&] { return !subid(records.size() - 1, "end").isNull(); },
                            HangGuardMs));
    QCOMPARE(subid(records.size() - 1, "offset"), QStringLiteral("6"));
    QCOMPARE(subid(records.size() - 1, "connection"), subid(0, "connection"));
}

void tst_Ends::withoutOffsetsThereIsNoPosition()
{
    start({{QStringLiteral("ends"), true}});
    NativeSocket device = connectDevice();
    QVERIFY(device.send("abc"));
    device.close();
    QVERIFY(QTest::qWaitFor(
            [&] { return !records.isEmpty() && !subid(records.size() - 1, "end").isNull(); },
            HangGuardMs));
    QCOMPARE(
            records.last()->getPluginSubId().keys(),
            QStringList({QStringLiteral("client"), QStringLiteral("end"), QStringLiteral("task")}));
}

void tst_Ends::connectionWithoutRecords_data()
{
    QTest::addColumn<QJsonValue>("ends");
    QTest::addColumn<bool>("told");
    QTest::newRow("true") << QJsonValue(true) << false;
    QTest::newRow("all") << QJsonValue(QStringLiteral("all")) << true;
}

void tst_Ends::connectionWithoutRecords()
{
    QFETCH(QJsonValue, ends);
    QFETCH(bool, told);
    start({{QStringLiteral("ends"), ends}, {QStringLiteral("threadpoolSize"), 1}});
    connectDevice().close();
    // There is one worker, so the first connection ends before the second one.
    NativeSocket second = connectDevice();
    QVERIFY(second.send("abc"));
    second.close();
    QVERIFY(QTest::qWaitFor(
            [&] { return records.size() > 1 && !subid(records.size() - 1, "end").isNull(); },
            HangGuardMs));
    qsizetype empty = 0;
    for (const Row &row : rows())
        empty += row.first.isEmpty() ? 1 : 0;
    QCOMPARE(empty, told ? 2 : 1);
}

// Each connection has exactly one end, after all of its records. The environment variable
// TCPINPUT_CONNECTIONS sets the number of connections.
void tst_Ends::manyConnections()
{
    const int count = qEnvironmentVariable("TCPINPUT_CONNECTIONS", QStringLiteral("2000")).toInt();
    start({{QStringLiteral("ends"), true}, {QStringLiteral("offsets"), true}});
    connect(plugin.get(), &IInputPlugin::receivedData, this,
            [input = plugin.get()](const shared_parsedData &record) {
                if (record->getDataLength() > 0)
                    input->discard(record->getDataLength(), record->getPluginSubId());
            });
    for (int i = 0; i < count; ++i) {
        NativeSocket device = connectDevice();
        QVERIFY(device.send("message"));
        if (i % 3 == 0)
            device.reset();
        QCoreApplication::processEvents();
    }
    plugin->stop();
    plugin.reset();
    QMap<QString, QString> endOf;
    for (qsizetype i = 0; i < records.size(); ++i) {
        const QString connection = subid(i, "connection");
        QVERIFY2(!endOf.contains(connection), "a record behind the end");
        if (const QString end = subid(i, "end"); !end.isNull())
            endOf.insert(connection, end);
    }
    QSet<QString> connections;
    for (qsizetype i = 0; i < records.size(); ++i)
        connections.insert(subid(i, "connection"));
    QCOMPARE(endOf.size(), connections.size());
    QVERIFY(!connections.isEmpty());
}

void tst_Ends::refusesOtherValues_data()
{
    QTest::addColumn<QJsonValue>("ends");
    QTest::addColumn<QString>("shown");
    QTest::newRow("text") << QJsonValue(QStringLiteral("some")) << QStringLiteral("\"some\"");
    QTest::newRow("number") << QJsonValue(1) << QStringLiteral("1");
    QTest::newRow("null") << QJsonValue() << QStringLiteral("null");
}

void tst_Ends::refusesOtherValues()
{
    QFETCH(QJsonValue, ends);
    QFETCH(QString, shown);
    QJsonObject config = tcpConfig(port);
    config.insert(QStringLiteral("ends"), ends);
    plugin = library.create(config);
    QVERIFY(!plugin->start());
    QCOMPARE(takeLog(),
             QStringList(QStringLiteral("W: TcpInputPlugin2(t): Configuration: ends is %1, "
                                        "accepted: true, false or \"all\"")
                                 .arg(shown)));
}

QTEST_GUILESS_MAIN(tst_Ends)
#include "tst_ends.moc"
