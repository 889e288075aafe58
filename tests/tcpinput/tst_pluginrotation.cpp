// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "tcpinput/tcpinputplugin2.h"
#include "tcpinput/tcptask2.h"
#include "tests/kit/hangguard.h"
#include "tests/kit/loglines.h"
#include "tests/kit/nativesocket.h"
#include "tests/kit/testaddress.h"
#include "tests/kit/tlsdevice.h"
#include "tests/tcpinput/plugintest.h"

#include <QtCore/QElapsedTimer>
#include <QtTest/QSignalSpy>
#include <QtTest/QTest>

#include <vector>

using namespace Qt::StringLiterals;
using namespace plugintest;

// Which task gets a new connection, and what the task is told about the connection.
class tst_PluginRotation : public PluginTest
{
    Q_OBJECT

private Q_SLOTS:
    void init() { begin(); }
    void cleanup() { end(); }

    void connectionLines();
    void spuriousSignal();
    void strictRotation();
    void rotationOverSmallPool_data();
    void rotationOverSmallPool();
    void rotationOfBurst();
    void poolShrinksBetweenStarts();
    void ipv6();
    void timeoutReachesClients();
};

void tst_PluginRotation::connectionLines()
{
    Plugin plugin;
    QVERIFY(plugin.start());
    takeLog();
    const NativeSocket device = plugin.connectDevice();
    QTRY_COMPARE_WITH_TIMEOUT(plugin.workers().turn(), 1, HangGuardMs);

    TcpTask2 *task = plugin.workers().allTasks().first();
    const long worker = threadNumberOf(task);
    const QString local = u"%1:%2"_s.arg(plugin.address.toString()).arg(plugin.port);
    const QString id = u"tcp2:%1-127.0.0.1:%2"_s.arg(local).arg(device.localPort());
    QCOMPARE(takeLog(),
             QStringList({ThreadLine, TaskLine, newConnectionLine(),
                          u"D: TcpTask2: Handling TCP connection, %1"_s.arg(worker),
                          u"D: TcpTask2: new connection "_s + id,
                          u"D: TcpClient: id = '%1', local = '%2'"_s.arg(id, local),
                          u"D: TcpTask2 (0): new client added, size = 1"_s}));
}

void tst_PluginRotation::spuriousSignal()
{
    Plugin plugin;
    plugin.handleConnection();
    QVERIFY(plugin.start());
    takeLog();
    plugin.handleConnection();
    QCOMPARE(takeLog(), QStringList());
    QCOMPARE(plugin.workers().turn(), 0);
    QVERIFY(plugin.workers().allTasks().isEmpty());
}

void tst_PluginRotation::strictRotation()
{
    Plugin plugin;
    const QSignalSpy announced(&plugin, &TcpInputPlugin2::newConnection);
    QVERIFY(plugin.start());
    std::vector<NativeSocket> devices;
    const QStringList expected{u"0"_s, u"1"_s, u"2"_s, u"3"_s, u"0"_s, u"1"_s};
    for (int n = 0; n < expected.size(); ++n) {
        const QByteArray name = "device " + QByteArray::number(n);
        devices.push_back(plugin.connectDevice());
        QVERIFY(devices.back().send(name));
        QCOMPARE(plugin.taskOf(name), expected[n]);
    }
    QCOMPARE(plugin.threadNames(),
             QStringList({u"InpTcp2_1/4"_s, u"InpTcp2_2/4"_s, u"InpTcp2_3/4"_s, u"InpTcp2_4/4"_s}));
    QCOMPARE(plugin.workers().turn(), 2);
    QCOMPARE(announced.count(), 0); // declared, never emitted
}

void tst_PluginRotation::rotationOverSmallPool_data()
{
    QTest::addColumn<int>("size");
    QTest::addColumn<QStringList>("threads");
    QTest::addColumn<QStringList>("tasks");

    QTest::newRow("1") << 1 << QStringList{u"InpTcp2_1/1"_s} << QStringList{u"0"_s, u"0"_s, u"0"_s};
    QTest::newRow("2") << 2 << QStringList{u"InpTcp2_1/2"_s, u"InpTcp2_2/2"_s}
                       << QStringList{u"0"_s, u"1"_s, u"0"_s};
}

void tst_PluginRotation::rotationOverSmallPool()
{
    QFETCH(int, size);
    QFETCH(QStringList, threads);
    QFETCH(QStringList, tasks);

    Plugin plugin(poolOf(size));
    QVERIFY(plugin.start());
    std::vector<NativeSocket> devices;
    for (int n = 0; n < tasks.size(); ++n) {
        const QByteArray name = "device " + QByteArray::number(n);
        devices.push_back(plugin.connectDevice());
        QVERIFY(devices.back().send(name));
        QCOMPARE(plugin.taskOf(name), tasks[n]);
    }
    QCOMPARE(plugin.threadNames(), threads);
}

// All waiting connections are dealt out in one go, and the threads come for them in any order.
// Still each connection goes to the task whose turn it was.
void tst_PluginRotation::rotationOfBurst()
{
    Plugin plugin;
    QVERIFY(plugin.start());
    std::vector<NativeSocket> devices;
    for (int n = 0; n < 200; ++n) {
        devices.push_back(plugin.connectDevice());
        QVERIFY(devices.back().send("device " + QByteArray::number(n)));
    }
    for (int n = 0; n < 200; ++n)
        QCOMPARE(plugin.taskOf("device " + QByteArray::number(n)), QString::number(n % 4));
    QCOMPARE(plugin.workers().turn(), 0);
}

// The second start() uses TLS: with the same kind of server, each connection would be handed over
// twice.
void tst_PluginRotation::poolShrinksBetweenStarts()
{
    Plugin plugin;
    QVERIFY(plugin.start());
    std::vector<NativeSocket> devices;
    for (int n = 0; n < 3; ++n)
        devices.push_back(plugin.connectDevice());
    QTRY_COMPARE_WITH_TIMEOUT(plugin.getStatus().count(u"tcp2:"_s), 3, HangGuardMs);
    QVERIFY(plugin.stop());

    plugin.configure(withTls(poolOf(2)));
    QVERIFY(plugin.start());
    QCOMPARE(plugin.workers().turn(), 3);
    const QStringList expected{u"3"_s, u"0"_s, u"1"_s, u"0"_s};
    std::vector<TlsDevice> tlsDevices;
    for (int n = 0; n < expected.size(); ++n) {
        const QByteArray name = "device " + QByteArray::number(n);
        tlsDevices.emplace_back(TLS1_3_VERSION);
        QVERIFY(sendOverTls(tlsDevices.back(), plugin, name));
        QCOMPARE(plugin.taskOf(name), expected[n]);
    }
    QCOMPARE(plugin.threadNames(),
             QStringList({u"InpTcp2_1/2"_s, u"InpTcp2_2/2"_s, u"InpTcp2_4/2"_s}));
}

void tst_PluginRotation::ipv6()
{
    const QHostAddress loopback(QHostAddress::LocalHostIPv6);
    if (freePort(loopback) == 0)
        QSKIP("This system has no IPv6 loopback address");
    Plugin plugin({}, loopback);
    QVERIFY(plugin.start());
    QCOMPARE(plugin.getStatus(),
             u"Listen: ::1:%1, timeout: 60s, pool size: 4\r\n"_s.arg(plugin.port));
    const NativeSocket device = plugin.connectDevice();
    QVERIFY(device.send("six"));
    const auto record = plugin.recordOf("six");
    QVERIFY(record);
    const QString id = u"tcp2:::1:%1-::1:%2"_s.arg(plugin.port).arg(device.localPort());
    QCOMPARE(record->getPeerAddress(), u"::1"_s);
    QCOMPARE(record->getPeerPort(), device.localPort());
    QCOMPARE(record->getSource(), u"TCP:"_s + id);
    QCOMPARE(record->getPluginSubId(), SubIdMap({{u"client"_s, id}, {u"task"_s, u"0"_s}}));
    QCOMPARE(record->getPluginId(), u"p"_s);
}

// The key is in seconds. A coarse timer may be early by 5 %.
void tst_PluginRotation::timeoutReachesClients()
{
    Plugin plugin({{u"timeout"_s, 1}});
    QVERIFY(plugin.start());
    QElapsedTimer time;
    time.start();
    const NativeSocket device = plugin.connectDevice();
    QTRY_COMPARE_WITH_TIMEOUT(plugin.workers().turn(), 1, HangGuardMs);
    QVERIFY(device.ends());
    QVERIFY2(time.elapsed() >= 950, qPrintable(QString::number(time.elapsed())));
}

QTEST_GUILESS_MAIN(tst_PluginRotation)
#include "tst_pluginrotation.moc"
