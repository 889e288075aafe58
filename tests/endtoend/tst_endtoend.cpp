// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "tests/kit/hangguard.h"
#include "tests/kit/loadedplugin.h"
#include "tests/kit/loglines.h"

#include <QtNetwork/QTcpSocket>
#include <QtTest/QtTest>

#include <algorithm>
#include <sys/socket.h>

/*!
    The library as a host sees it: loaded at run time, driven by real sockets.
*/
class tst_EndToEnd : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase_data();
    void init();
    void cleanup();

    void recordCarriesBytesAndIds();
    void creatorMakesTheSamePlugin();
    void offersWhatACutLeaves();
    void cutIsRoutedToItsConnection();
    void lastOfferComesWithTheEnd();
    void discardWithoutEffectIsHarmless();
    void idleConnectionIsClosedWithItsLateBytes();
    void resetConnectionHasItsAddress();
    void statusNamesEveryConnection();
    void restartServesAgain();

private:
    void start(QJsonObject config = {});
    std::unique_ptr<QTcpSocket> connectDevice();
    QByteArray bytes(qsizetype index) const { return records.at(index)->getOriginalMessage(); }
    bool waitForRecords(qsizetype count);

    LoadedLibrary library;
    QHostAddress address;
    quint16 port = 0;
    std::unique_ptr<IInputPlugin> plugin;
    QList<shared_parsedData> records;
    std::unique_ptr<MessageCapture> capture;
};

void tst_EndToEnd::initTestCase_data()
{
    QTest::addColumn<QHostAddress>("listenAddress");
    QTest::newRow("IPv4") << testAddress();
    QTest::newRow("IPv6") << QHostAddress(QHostAddress::LocalHostIPv6);
}

void tst_EndToEnd::init()
{
    QFETCH_GLOBAL(QHostAddress, listenAddress);
    address = listenAddress;
    port = freePort(address);
    if (port == 0)
        QSKIP("This system has no such address");
    capture = std::make_unique<MessageCapture>();
}

void tst_EndToEnd::cleanup()
{
    plugin.reset();
    records.clear();
    capture.reset();
}

void tst_EndToEnd::start(QJsonObject config)
{
    const QJsonObject listen = tcpConfig(port, address);
    for (auto key = listen.begin(); key != listen.end(); ++key)
        config.insert(key.key(), key.value());
    plugin = library.create(config);
    connect(plugin.get(), &IInputPlugin::receivedData, this,
            [this](const shared_parsedData &record) { records.append(record); });
    QVERIFY(plugin->start());
    QVERIFY(isListening(*plugin));
}

std::unique_ptr<QTcpSocket> tst_EndToEnd::connectDevice()
{
    auto device = std::make_unique<QTcpSocket>();
    device->connectToHost(address, port);
    if (!device->waitForConnected())
        qFatal("%s", qPrintable(device->errorString()));
    return device;
}

bool tst_EndToEnd::waitForRecords(qsizetype count)
{
    return QTest::qWaitFor([&] { return records.size() >= count; }, HangGuardMs);
}

void tst_EndToEnd::recordCarriesBytesAndIds()
{
    start();
    const auto device = connectDevice();
    device->write("abc");
    QVERIFY(waitForRecords(1));

    const ParsedData &record = *records.first();
    const QString endpoints = QStringLiteral("tcp2:%1:%2-%3:%4")
                                      .arg(address.toString())
                                      .arg(port)
                                      .arg(device->localAddress().toString())
                                      .arg(device->localPort());
    QCOMPARE(record.getOriginalMessage(), QByteArray("abc"));
    QCOMPARE(record.getPeerAddress(), device->localAddress().toString());
    QCOMPARE(record.getPeerPort(), device->localPort());
    QCOMPARE(record.getPluginId(), QStringLiteral("t"));
    QCOMPARE(record.getSource(), QStringLiteral("TCP:") + endpoints);
    const QMap<QString, QString> subids{{QStringLiteral("client"), endpoints},
                                        {QStringLiteral("task"), QStringLiteral("0")}};
    QCOMPARE(record.getPluginSubId(), subids);
    QVERIFY(record.getFormat().isEmpty() && record.getDeviceId().isEmpty());
    QVERIFY(record.getData().isEmpty() && !record.isParsed() && !record.isGPSPosData());
}

void tst_EndToEnd::creatorMakesTheSamePlugin()
{
    QLibrary file(QStringLiteral(PLUGIN_FILE));
    const auto registerPlugin =
            reinterpret_cast<RegisterPluginFunction>(file.resolve("registerPlugin"));
    QVERIFY(registerPlugin);
    InputPluginCreators creators;
    registerPlugin(creators);
    const auto *const creator = creators.value(QStringLiteral("TcpInputPlugin2"));
    QVERIFY(creator);

    plugin.reset(creator->create());
    delete creator;
    plugin->setConfig(tcpConfig(port, address));
    connect(plugin.get(), &IInputPlugin::receivedData, this,
            [this](const shared_parsedData &record) { records.append(record); });
    QVERIFY(plugin->start());
    const auto device = connectDevice();
    device->write("abc");
    QVERIFY(waitForRecords(1));
    QCOMPARE(bytes(0), QByteArray("abc"));
}

// With one worker, a new connection is a fence: it is adopted after every cut posted before it.
void tst_EndToEnd::offersWhatACutLeaves()
{
    start({{QStringLiteral("threadpoolSize"), 1}});
    const auto device = connectDevice();
    const QByteArray rest(21, 'r');
    device->write("abc\n" + rest);
    QVERIFY(waitForRecords(1));
    QCOMPARE(bytes(0), "abc\n" + rest);
    plugin->discard(4, records.first()->getPluginSubId());
    QVERIFY(waitForRecords(2));
    QCOMPARE(bytes(1), rest);

    plugin->discard(1, records.first()->getPluginSubId());
    const auto fence = connectDevice();
    fence->write("fence");
    QVERIFY(waitForRecords(3));
    QCOMPARE(bytes(2), QByteArray("fence")); // 20 bytes are left: too few for an offer now
    device->disconnectFromHost();
    QVERIFY(waitForRecords(4));
    QCOMPARE(bytes(3), rest.mid(1));
}

void tst_EndToEnd::cutIsRoutedToItsConnection()
{
    start({{QStringLiteral("threadpoolSize"), 2}});
    std::vector<std::unique_ptr<QTcpSocket>> devices;
    for (int n = 0; n < 4; ++n) {
        devices.push_back(connectDevice());
        devices.back()->write(QByteArray(n + 1, 'x'));
        QVERIFY(waitForRecords(n + 1));
    }
    for (int n = 0; n < 4; ++n)
        plugin->discard(n, records.at(n)->getPluginSubId());
    for (int n = 0; n < 2; ++n) { // a fence for each worker
        devices.push_back(connectDevice());
        devices.back()->write("fence");
        QVERIFY(waitForRecords(5 + n));
    }
    for (int n = 0; n < 4; ++n) {
        devices.at(static_cast<std::size_t>(n))->disconnectFromHost();
        QVERIFY(waitForRecords(7 + n));
        QCOMPARE(bytes(6 + n), QByteArray("x"));
        QCOMPARE(records.at(6 + n)->getPluginSubId(), records.at(n)->getPluginSubId());
    }
}

void tst_EndToEnd::lastOfferComesWithTheEnd()
{
    start();
    {
        const auto device = connectDevice();
        device->write("hello\n");
        device->disconnectFromHost();
        if (device->state() != QAbstractSocket::UnconnectedState)
            QVERIFY(device->waitForDisconnected());
    }
    const QString end = QStringLiteral("(received 6 bytes, 1 msgs)");
    QStringList log;
    QTRY_VERIFY_WITH_TIMEOUT((log += takeLog()).filter(end).size() == 1, HangGuardMs);
    QVERIFY(waitForRecords(1));
    for (const shared_parsedData &record : std::as_const(records))
        QCOMPARE(record->getOriginalMessage(), QByteArray("hello\n"));
}

void tst_EndToEnd::discardWithoutEffectIsHarmless()
{
    start();
    const auto device = connectDevice();
    device->write("abc");
    QVERIFY(waitForRecords(1));
    takeLog();
    auto subids = records.first()->getPluginSubId();
    plugin->discard(0, subids);
    plugin->discard(-1, subids);
    plugin->discard(1, {});
    subids.insert(QStringLiteral("client"), QStringLiteral("x"));
    plugin->discard(1, subids);
    subids.remove(QStringLiteral("client"));
    plugin->discard(1, subids);
    subids.insert(QStringLiteral("task"), QStringLiteral("3"));
    plugin->discard(1, subids);
    QCOMPARE(takeLog(),
             QStringList({QStringLiteral("D: TcpInput2(t): subid[task] not set"),
                          QStringLiteral("D: TcpTask2: discard for non-existing client x"),
                          QStringLiteral("D: TcpTask2: subid[client] not set"),
                          QStringLiteral("D: TcpInput2(t): discarding for non-existing task 3")}));
    device->disconnectFromHost();
    QVERIFY(waitForRecords(2));
    QCOMPARE(bytes(1), QByteArray("abc"));
}

void tst_EndToEnd::idleConnectionIsClosedWithItsLateBytes()
{
    start({{QStringLiteral("timeout"), 1}});
    const auto device = connectDevice();
    device->write("first");
    QVERIFY(waitForRecords(1));
    plugin->discard(5, records.first()->getPluginSubId());
    device->write("late"); // as a rule within 200 ms: not offered before the end
    QTRY_COMPARE_WITH_TIMEOUT(device->state(), QAbstractSocket::UnconnectedState, HangGuardMs);
    QVERIFY(waitForRecords(2));
    QCOMPARE(bytes(1), QByteArray("late"));
    QCOMPARE(takeLog().filter(QStringLiteral("TcpClient: timeout")).size(), 1);
}

void tst_EndToEnd::resetConnectionHasItsAddress()
{
    start();
    quint16 devicePort = 0;
    QHostAddress peer;
    {
        const auto device = connectDevice();
        devicePort = device->localPort();
        peer = device->localAddress();
        const linger now{1, 0};
        QCOMPARE(::setsockopt(static_cast<int>(device->socketDescriptor()), SOL_SOCKET, SO_LINGER,
                              &now, sizeof now),
                 0);
        device->abort(); // RST, before the plugin's thread has looked
    }
    const QString line = QStringLiteral("D: TcpTask2: new connection tcp2:%1:%2-%3:%4")
                                 .arg(address.toString())
                                 .arg(port)
                                 .arg(peer.toString())
                                 .arg(devicePort);
    QStringList log;
    QTRY_VERIFY_WITH_TIMEOUT(
            !(log += takeLog()).filter(QStringLiteral("TcpTask2: new connection")).isEmpty(),
            HangGuardMs);
    QVERIFY2(log.contains(line), qPrintable(log.join(QLatin1Char('\n'))));
}

void tst_EndToEnd::statusNamesEveryConnection()
{
    start({{QStringLiteral("timeout"), 90}, {QStringLiteral("threadpoolSize"), 2}});
    QString expected = QStringLiteral("Listen: %1:%2, timeout: 90s, pool size: 2\r\n")
                               .arg(address.toString())
                               .arg(port);
    QCOMPARE(plugin->getStatus(), expected);
    std::vector<std::unique_ptr<QTcpSocket>> devices;
    for (int n = 0; n < 3; ++n) {
        devices.push_back(connectDevice());
        devices.back()->write("x");
        QVERIFY(waitForRecords(n + 1)); // before the first read, the id is not final
    }
    const auto lines = [&](std::initializer_list<int> numbers) {
        QStringList ids;
        for (int number : numbers)
            ids.append(records.at(number)->getPluginSubIdKey(QStringLiteral("client")));
        std::sort(ids.begin(), ids.end());
        QString text;
        for (const QString &id : std::as_const(ids))
            text += QStringLiteral("   ") + id + QStringLiteral("\r\n      (empty 0)\r\n");
        return text;
    };
    expected += lines({0, 2}) + lines({1}); // ordered by task, then by id
    QTRY_COMPARE_WITH_TIMEOUT(plugin->getStatus(), expected, HangGuardMs);
}

void tst_EndToEnd::restartServesAgain()
{
    start();
    const auto before = connectDevice();
    before->write("before");
    QVERIFY(waitForRecords(1));
    QVERIFY(plugin->stop());
    QVERIFY(!isListening(*plugin));
    QVERIFY(waitForRecords(2)); // the last offer: nothing was discarded
    QCOMPARE(bytes(1), QByteArray("before"));
    QTRY_COMPARE_WITH_TIMEOUT(before->state(), QAbstractSocket::UnconnectedState, HangGuardMs);

    QVERIFY(plugin->start());
    QVERIFY(isListening(*plugin));
    const auto after = connectDevice();
    after->write("after");
    QVERIFY(waitForRecords(3));
    QCOMPARE(bytes(2), QByteArray("after"));
}

QTEST_GUILESS_MAIN(tst_EndToEnd)
#include "tst_endtoend.moc"
