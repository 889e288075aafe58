// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "tests/kit/messagecapture.h"
#include "tests/kit/privatenetwork.h"
#include "tests/kit/tirelessdevice.h"
#include "tests/kit/tlsengines.h"
#include "tests/plugin/kit/sessiontest.h"

#include <QtNetwork/QTcpServer>
#include <QtTest/QtTest>

#include <vector>

using namespace sessiontest;

namespace {

QJsonObject configurationFor(quint16 port, const QString &engine)
{
    QJsonObject configuration = configurationOf(port);
    if (!engine.isEmpty())
        configuration.insert(QStringLiteral("ssl"), withEngine(serverTls(), engine));
    return configuration;
}

// The messages of one stream, in the order in which they were handed out.
QByteArrayList messagesOf(const Log &log, int stream)
{
    const QByteArray prefix = QByteArray::number(stream) + ' ';
    QByteArrayList result;
    for (const QByteArrayList &connection : log.messages) {
        if (!connection.isEmpty() && connection.first().startsWith(prefix))
            result += connection;
    }
    return result;
}

QByteArrayList allOf(const TirelessDevice &device)
{
    QByteArrayList result;
    for (int n = 0; n < device.sent(); ++n)
        result += numberedMessage(device.stream(), n).chopped(1);
    return result;
}

} // namespace

// A plugin takes another one's place.
class tst_Reloading : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void losesNothing_data();
    void losesNothing();
    void endsWhoDoesNotClose();
    void endsTheOldestOfMany();
    void badConfigurationChangesNothing_data();
    void badConfigurationChangesNothing();
    void otherAddressOfThePort();
    void anotherMachinesAddressOfThePort();
    void answersReachTheirPlugin();
    void drains_data();
    void drains();
    void drainsNothing();
    void stopsWhileDraining();
};

void tst_Reloading::losesNothing_data()
{
    QTest::addColumn<QString>("engine");
    QTest::newRow("tcp") << QString();
    for (const char *engine : TlsEngines)
        QTest::newRow(engine) << QString::fromLatin1(engine);
}

void tst_Reloading::losesNothing()
{
    QFETCH(QString, engine);
    constexpr int Devices = 4;
    constexpr int Reloads = 3;
    Log log;
    InputSession session(settingsFor(log.handlers()));
    const QJsonObject configuration = configurationFor(freePort(), engine);
    QVERIFY(session.start(configuration));
    std::vector<std::unique_ptr<TirelessDevice>> devices;
    for (int n = 0; n < Devices; ++n)
        devices.push_back(std::make_unique<TirelessDevice>(n, testAddress(), session.port(),
                                                           !engine.isEmpty()));
    // Who only waits in the kernel's queue is not told to go, but taken over.
    const auto allAreServed = [&] {
        const auto haveFailed = std::any_of(devices.begin(), devices.end(),
                                            [](const auto &device) { return device->hasFailed(); });
        return haveFailed || session.counters()->accepted == Devices;
    };
    for (int n = 1; n <= Reloads; ++n) {
        QTRY_VERIFY_WITH_TIMEOUT(allAreServed(), HangGuardMs);
        QVERIFY2(session.reload(configuration), qPrintable(session.errorString()));
    }
    QTRY_VERIFY_WITH_TIMEOUT(allAreServed(), HangGuardMs);
    for (const auto &device : devices) {
        device->finish();
        QVERIFY(!device->hasFailed());
        QCOMPARE(device->connections(), Reloads + 1);
        QTRY_COMPARE_WITH_TIMEOUT(messagesOf(log, device->stream()).size(),
                                  qsizetype(device->sent()), HangGuardMs);
        QCOMPARE(messagesOf(log, device->stream()), allOf(*device));
    }
    QVERIFY(!log.gaps);
    QTRY_COMPARE_WITH_TIMEOUT(log.over, QStringList(log.over.size(), QStringLiteral("peer")),
                              HangGuardMs);
}

// What was read of it is handed out.
void tst_Reloading::endsWhoDoesNotClose()
{
    const MessageCapture capture;
    Log log;
    InputSettings settings = settingsFor(log.handlers());
    settings.closingTime = std::chrono::milliseconds(0);
    InputSession session(settings);
    const QJsonObject configuration = configurationOf(freePort());
    QVERIFY(session.start(configuration));
    const auto device = NativeSocket::connectedTo(testAddress(), quint16(session.port()));
    QVERIFY(device.send("a\nhalf"));
    QTRY_COMPARE_WITH_TIMEOUT(log.count, 1, HangGuardMs);
    QVERIFY(session.reload(configuration));
    const auto another = NativeSocket::connectedTo(testAddress(), quint16(session.port()));
    QVERIFY(another.send("b\n"));
    QTRY_COMPARE_WITH_TIMEOUT(log.over, QStringList{QStringLiteral("stop")}, HangGuardMs);
    QTRY_COMPARE_WITH_TIMEOUT(log.count, 3, HangGuardMs);
    QCOMPARE(log.messages.first(), QByteArrayList({"a", "(half)"}));
    QCOMPARE(log.messages.last(), QByteArrayList{"b"});
    QVERIFY(another.send("c\n")); // the other plugin's connections are not forgotten
    QTRY_COMPARE_WITH_TIMEOUT(log.messages.last(), QByteArrayList({"b", "c"}), HangGuardMs);
    QVERIFY(!log.gaps);
}

void tst_Reloading::endsTheOldestOfMany()
{
    Log log;
    InputSession session(settingsFor(log.handlers()));
    const QJsonObject configuration = configurationOf(freePort());
    QVERIFY(session.start(configuration));
    std::vector<NativeSocket> devices;
    for (std::size_t n = 0; n <= PluginRunner::MostLeaving; ++n) {
        devices.push_back(NativeSocket::connectedTo(testAddress(), quint16(session.port())));
        QVERIFY(devices.back().send("a\n"));
        QTRY_COMPARE_WITH_TIMEOUT(log.count, int(n) + 1, HangGuardMs);
        QVERIFY(log.over.isEmpty());
        QVERIFY(session.reload(configuration));
    }
    QCOMPARE(log.over, QStringList{QStringLiteral("stop")});
    QVERIFY(devices[1].send("b\n"));
    QTRY_COMPARE_WITH_TIMEOUT(log.messages.values().at(1), QByteArrayList({"a", "b"}), HangGuardMs);
}

void tst_Reloading::badConfigurationChangesNothing_data()
{
    QTest::addColumn<QString>("key");
    QTest::addColumn<QJsonValue>("value");
    QTest::addColumn<InputSession::Failure>("failure");
    QTest::newRow("misspelt") << QStringLiteral("Port") << QJsonValue(1)
                              << InputSession::Failure::Refused;
    QTest::newRow("no certificate")
            << QStringLiteral("ssl")
            << QJsonValue(QJsonObject{{QStringLiteral("CertFile"), QStringLiteral("/nowhere")}})
            << InputSession::Failure::Refused;
    QTest::newRow("another machine's address")
            << QStringLiteral("ipAddr") << QJsonValue(QStringLiteral("192.0.2.1"))
            << InputSession::Failure::NotListening;
    QTest::newRow("port in use") << QStringLiteral("port") << QJsonValue()
                                 << InputSession::Failure::NotListening;
}

void tst_Reloading::badConfigurationChangesNothing()
{
    QFETCH(QString, key);
    QFETCH(QJsonValue, value);
    const MessageCapture capture;
    QTcpServer other;
    QVERIFY(other.listen(testAddress()));
    Log log;
    InputSession session(settingsFor(log.handlers()));
    QJsonObject configuration = configurationOf(freePort());
    QVERIFY(session.start(configuration));
    const auto device = NativeSocket::connectedTo(testAddress(), quint16(session.port()));
    QVERIFY(device.send("a\n"));
    QTRY_COMPARE_WITH_TIMEOUT(log.count, 1, HangGuardMs);

    configuration.insert(key, value.isNull() ? QJsonValue(other.serverPort()) : value);
    QVERIFY(!session.reload(configuration));
    QTEST(session.failure(), "failure");
    QVERIFY(session.isListening());
    QVERIFY(device.send("b\n"));
    const auto another = NativeSocket::connectedTo(testAddress(), quint16(session.port()));
    QVERIFY(another.send("c\n"));
    QTRY_COMPARE_WITH_TIMEOUT(log.count, 3, HangGuardMs);
    QCOMPARE(session.counters()->accepted, quint64(2));
    QVERIFY(log.over.isEmpty());
}

// Nobody else can listen on the port before the old plugin has gone from there.
void tst_Reloading::otherAddressOfThePort()
{
    const MessageCapture capture;
    Log log;
    InputSession session(settingsFor(log.handlers()));
    const quint16 port = freePort(QHostAddress(QHostAddress::AnyIPv4));
    QJsonObject everywhere = configurationOf(port);
    everywhere.insert(QStringLiteral("ipAddr"), QStringLiteral("0.0.0.0"));
    QVERIFY(session.start(everywhere));
    auto device = NativeSocket::connectedTo(testAddress(), port);
    QVERIFY(device.send("a\n"));
    QTRY_COMPARE_WITH_TIMEOUT(log.count, 1, HangGuardMs);
    QVERIFY2(session.reload(configurationOf(port)), qPrintable(session.errorString()));
    QCOMPARE(session.address(), testAddress().toString());
    QVERIFY(device.send("b\n"));
    device.close();
    QTRY_COMPARE_WITH_TIMEOUT(log.over, QStringList{QStringLiteral("peer")}, HangGuardMs);
    QCOMPARE(log.all(), QByteArrayList({"a", "b"}));

    // It fails, and the old configuration is used again.
    everywhere.insert(QStringLiteral("unknown"), 1);
    everywhere.insert(QStringLiteral("ipAddr"), QStringLiteral("0.0.0.0"));
    QVERIFY(!session.reload(everywhere));
    QCOMPARE(session.address(), testAddress().toString());
    QVERIFY(NativeSocket::connectedTo(testAddress(), port).isValid());
}

// The port is not what keeps the new plugin from listening. So the old one need not go.
void tst_Reloading::anotherMachinesAddressOfThePort()
{
    const MessageCapture capture;
    Log log;
    InputSession session(settingsFor(log.handlers()));
    QJsonObject configuration = configurationOf(freePort(QHostAddress(QHostAddress::AnyIPv4)));
    configuration.insert(QStringLiteral("ipAddr"), QStringLiteral("0.0.0.0"));
    QVERIFY(session.start(configuration));
    const auto device = NativeSocket::connectedTo(testAddress(), quint16(session.port()));
    QVERIFY(device.send("a\n"));
    QTRY_COMPARE_WITH_TIMEOUT(log.count, 1, HangGuardMs);
    configuration.insert(QStringLiteral("ipAddr"), QStringLiteral("192.0.2.1"));
    QVERIFY(!session.reload(configuration));
    QCOMPARE(session.failure(), InputSession::Failure::NotListening);
    QCOMPARE(session.counters()->accepted, quint64(1)); // it is the same plugin
}

// A connection that holds too much is read on only if its own plugin gets the answer.
void tst_Reloading::answersReachTheirPlugin()
{
    Log log;
    InputSettings settings = settingsFor(log.handlers());
    settings.acknowledging = true;
    InputSession session(settings);
    QJsonObject configuration = configurationOf(freePort());
    configuration.insert(QStringLiteral("limits"),
                         QJsonObject{{QStringLiteral("connectionBuffer"), 65536}});
    QVERIFY(session.start(configuration));
    auto device = NativeSocket::connectedTo(testAddress(), quint16(session.port()));
    const QByteArray line = QByteArray(40000, 'x') + '\n';
    QVERIFY(device.send(line + line));
    QTRY_COMPARE_WITH_TIMEOUT(log.count, 1, HangGuardMs);
    QTRY_COMPARE_WITH_TIMEOUT(session.counters()->paused, quint64(1), HangGuardMs);
    QVERIFY(session.reload(configuration));
    session.acknowledge(log.messages.firstKey(), quint64(line.size()));
    QTRY_COMPARE_WITH_TIMEOUT(log.count, 2, HangGuardMs);
    QVERIFY(log.over.isEmpty());
    device.close();
    QTRY_COMPARE_WITH_TIMEOUT(log.over, QStringList{QStringLiteral("peer")}, HangGuardMs);
}

void tst_Reloading::drains_data()
{
    losesNothing_data();
}

void tst_Reloading::drains()
{
    QFETCH(QString, engine);
    Log log;
    InputSettings settings = settingsFor(log.handlers());
    settings.drainTime = std::chrono::milliseconds(50);
    InputSession session(settings);
    const QSignalSpy drained(&session, &InputSession::drained);
    QVERIFY(session.start(configurationFor(freePort(), engine)));
    const auto port = quint16(session.port());
    const auto first = connectTo(session, !engine.isEmpty());
    const auto second = connectTo(session, !engine.isEmpty());
    QVERIFY(first && second);
    first->write("a\n");
    second->write("b\n");
    QTRY_COMPARE_WITH_TIMEOUT(log.count, 2, HangGuardMs);
    second->write("c\n"); // on its way when the session drains
    session.drain();
    QVERIFY(!session.isListening());
    QVERIFY(!NativeSocket::connectedTo(testAddress(), port).isValid());
    QTRY_COMPARE_WITH_TIMEOUT(drained.size(), 1, HangGuardMs);
    QCOMPARE(log.over, QStringList({QStringLiteral("peer"), QStringLiteral("peer")}));
    QCOMPARE(log.all(), QByteArrayList({"a", "b", "c"}));
    QVERIFY(session.start(configurationFor(port, engine))); // as after stop()
}

void tst_Reloading::drainsNothing()
{
    InputSession session(settingsFor({}));
    const QSignalSpy drained(&session, &InputSession::drained);
    session.drain();
    QTRY_COMPARE_WITH_TIMEOUT(drained.size(), 1, HangGuardMs);
}

void tst_Reloading::stopsWhileDraining()
{
    Log log;
    InputSession session(settingsFor(log.handlers()));
    const QSignalSpy drained(&session, &InputSession::drained);
    QVERIFY(session.start(configurationOf(freePort())));
    const auto device = NativeSocket::connectedTo(testAddress(), quint16(session.port()));
    QVERIFY(device.send("a\n"));
    QTRY_COMPARE_WITH_TIMEOUT(log.count, 1, HangGuardMs);
    session.drain();
    QVERIFY(log.over.isEmpty());
    session.stop();
    QCOMPARE(log.over, QStringList{QStringLiteral("stop")});
    QCOMPARE(drained.size(), 0);
}

// Some tests listen on all addresses. A port that is free on one may be another process' on
// another.
int main(int argc, char *argv[])
{
    PrivateNetwork::enter();
    const QCoreApplication application(argc, argv);
    tst_Reloading test;
    return QTest::qExec(&test, argc, argv);
}
#include "tst_reloading.moc"
