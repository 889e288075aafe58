// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "tcpinput/tcpinputplugin2.h"
#include "tcpinput/tcptask2.h"
#include "tests/kit/hangguard.h"
#include "tests/kit/loglines.h"
#include "tests/kit/nativesocket.h"
#include "tests/tcpinput/plugintest.h"

#include <QtTest/QSignalSpy>
#include <QtTest/QTest>

#include <limits>
#include <vector>

using namespace Qt::StringLiterals;
using namespace plugintest;

// What the plugin tells its host: reports, status, queries.
class tst_PluginStatus : public PluginTest
{
    Q_OBJECT

private Q_SLOTS:
    void init() { begin(); }
    void cleanup() { end(); }

    void reportDependsOnLogLevel_data();
    void reportDependsOnLogLevel();
    void noReportWithoutHost();
    void reportBeforeAnyConnection();
    void reportReachesEveryTask();
    void statusTimer();
    void statusTimerAfterFailedStart();

    void statusWithoutTasks();
    void statusListsClients();
    void slotReceivedDataStampsTheId();
    void onQueryReturnsTheAnswer();
    void drop_data();
    void drop();
};

void tst_PluginStatus::reportDependsOnLogLevel_data()
{
    QTest::addColumn<QStringList>("answer");
    QTest::addColumn<bool>("reports");

    QTest::newRow("debug") << QStringList{u"debug"_s} << true;
    QTest::newRow("verbose-debug") << QStringList{u"verbose-debug"_s} << true;
    QTest::newRow("debugging") << QStringList{u"debugging"_s} << true;
    QTest::newRow("debug, then info") << QStringList{u"debug"_s, u"info"_s} << true;
    QTest::newRow("info") << QStringList{u"info"_s} << false;
    QTest::newRow("info, then debug") << QStringList{u"info"_s, u"debug"_s} << false;
    QTest::newRow("Debug") << QStringList{u"Debug"_s} << false;
    QTest::newRow("DEBUG") << QStringList{u"DEBUG"_s} << false;
    QTest::newRow("empty text") << QStringList{QString()} << false;
    QTest::newRow("empty list") << QStringList() << false;
}

void tst_PluginStatus::reportDependsOnLogLevel()
{
    QFETCH(QStringList, answer);
    QFETCH(bool, reports);

    Plugin plugin;
    plugin.answer = answer;
    TcpTask2 *task = plugin.getTask();
    const QSignalSpy sizes(&plugin, &TcpInputPlugin2::logSize);
    takeLog();
    plugin.showThreads();
    passQueueOf(task);

    QCOMPARE(plugin.queries, QStringList{u"loglevel"_s});
    QStringList expected;
    if (reports)
        expected = QStringList(
                {reportLine(1, 1),
                 u"D:   TcpTask2: id = p, #clients = 0, id = %1"_s.arg(threadNumberOf(task))});
    QCOMPARE(takeLog(), expected);
    QCOMPARE(sizes.count(), reports ? 1 : 0);
    if (reports)
        QCOMPARE(sizes.first(), QVariantList{u"p"_s});
}

void tst_PluginStatus::noReportWithoutHost()
{
    TcpInputPlugin2 plugin(nullptr);
    plugin.showThreads();
    QCOMPARE(takeLog(), QStringList());
}

void tst_PluginStatus::reportBeforeAnyConnection()
{
    Plugin plugin;
    plugin.answer = QStringList{u"debug"_s};
    plugin.showThreads();
    QCOMPARE(takeLog(), QStringList{reportLine(0, 0)});
    QVERIFY(plugin.start());
    takeLog();
    plugin.showThreads();
    QCOMPARE(takeLog(), QStringList{reportLine(0, 0)});

    // Threads and tasks are counted apart.
    QVERIFY(plugin.getThread(2));
    takeLog();
    plugin.showThreads();
    QCOMPARE(takeLog(), QStringList{reportLine(1, 0)});
}

void tst_PluginStatus::reportReachesEveryTask()
{
    Plugin plugin(poolOf(2));
    plugin.answer = QStringList{u"debug"_s};
    QVERIFY(plugin.start());
    std::vector<NativeSocket> devices;
    for (int n = 0; n < 3; ++n)
        devices.push_back(plugin.connectDevice());
    QTRY_COMPARE_WITH_TIMEOUT(plugin.getStatus().count(u"tcp2:"_s), 3, HangGuardMs);

    TcpTask2 *first = plugin.workers().allTasks().value(0);
    TcpTask2 *second = plugin.workers().allTasks().value(1);
    takeLog();
    plugin.showThreads();
    passQueueOf(first);
    passQueueOf(second);
    QStringList lines = takeLog();
    QCOMPARE(lines.takeFirst(), reportLine(2, 2));
    const QString format = u"D:   TcpTask2: id = p, #clients = %1, id = %2"_s;
    QStringList expected{format.arg(2).arg(threadNumberOf(first)),
                         format.arg(1).arg(threadNumberOf(second))};
    lines.sort(); // the tasks write side by side
    expected.sort();
    QCOMPARE(lines, expected);
}

void tst_PluginStatus::statusTimer()
{
    Plugin plugin;
    const QTimer &timer = plugin.reportTimer();
    QVERIFY(!timer.isActive());
    QCOMPARE(timer.parent(), nullptr);

    QVERIFY(plugin.start());
    QVERIFY(timer.isActive());
    QCOMPARE(timer.interval(), 10000);
    QVERIFY(!timer.isSingleShot());

    const auto tick = [&plugin] {
        plugin.queries.clear();
        QMetaObject::invokeMethod(const_cast<QTimer *>(&plugin.reportTimer()), "timeout");
        return plugin.queries;
    };
    QCOMPARE(tick(), QStringList{u"loglevel"_s});

    // The timer goes on after stop(). Each further start() makes it ask once more.
    QVERIFY(plugin.stop());
    QVERIFY(timer.isActive());
    QCOMPARE(tick(), QStringList{u"loglevel"_s});
    QVERIFY(plugin.start());
    QCOMPARE(timer.interval(), 10000);
    QCOMPARE(tick(), QStringList({u"loglevel"_s, u"loglevel"_s}));
}

void tst_PluginStatus::statusTimerAfterFailedStart()
{
    Plugin plugin(withTls({}, {{u"CAFile"_s, u"/nowhere"_s}}));
    QVERIFY(!plugin.start());
    QVERIFY(!plugin.reportTimer().isActive());
    takeLog();
}

void tst_PluginStatus::statusWithoutTasks()
{
    Plugin plugin({{u"timeout"_s, 90}});
    QCOMPARE(plugin.getStatus(), u"Listen: :0, timeout: 60s, pool size: 4\r\n"_s);
    QVERIFY(plugin.start());
    takeLog();
    QCOMPARE(plugin.getStatus(),
             u"Listen: %1:%2, timeout: 90s, pool size: 4\r\n"_s.arg(plugin.address.toString())
                     .arg(plugin.port));
    QCOMPARE(takeLog(), QStringList());
    QCOMPARE(plugin.queries, QStringList());
}

void tst_PluginStatus::statusListsClients()
{
    Plugin plugin(poolOf(2));
    plugin.answer = QStringList{u"a name"_s}; // comes too late to be in the text
    QVERIFY(plugin.start());
    const QString first =
            u"Listen: %1:%2, timeout: 60s, pool size: 2\r\n"_s.arg(plugin.address.toString())
                    .arg(plugin.port);
    std::vector<NativeSocket> devices;
    QStringList ids[2]; // by task
    for (int n = 0; n < 4; ++n) {
        devices.push_back(plugin.connectDevice());
        QTRY_COMPARE_WITH_TIMEOUT(plugin.getStatus().count(u"tcp2:"_s), n + 1, HangGuardMs);
        ids[n % 2].append(u"tcp2:%1:%2-127.0.0.1:%3"_s.arg(plugin.address.toString())
                                  .arg(plugin.port)
                                  .arg(devices.back().localPort()));
    }
    QCoreApplication::processEvents();
    plugin.queries.clear();

    QString expected = first;
    QStringList queries;
    for (QStringList &ofTask : ids) { // ascending by task, then by id
        ofTask.sort();
        for (const QString &id : std::as_const(ofTask)) {
            expected += u"   "_s + id + u"\r\n      (empty 0)\r\n"_s;
            queries.append(u"lookup TCP:"_s + id);
        }
    }
    takeLog();
    QCOMPARE(plugin.getStatus(), expected);
    QCOMPARE(plugin.queries, QStringList()); // they come later
    QTRY_COMPARE_WITH_TIMEOUT(plugin.queries.size(), queries.size(), HangGuardMs);
    QCOMPARE(plugin.queries, queries);
    QCOMPARE(takeLog(), QStringList());
}

void tst_PluginStatus::slotReceivedDataStampsTheId()
{
    Plugin plugin;
    const shared_parsedData record(new ParsedData);
    plugin.slotReceivedData(record);
    QCOMPARE(plugin.records, QList{record}); // the same object
    QCOMPARE(record->getPluginId(), u"p"_s);

    plugin.pluginId = u"q"_s;
    plugin.slotReceivedData(record);
    QCOMPARE(record->getPluginId(), u"q"_s);
    QCOMPARE(plugin.records.size(), 2);
}

void tst_PluginStatus::onQueryReturnsTheAnswer()
{
    Plugin plugin;
    plugin.answer = QStringList{u"one"_s, u"two"_s};
    QCOMPARE(plugin.onQuery(u"anything"_s), plugin.answer);
    QCOMPARE(plugin.queries, QStringList{u"anything"_s});

    TcpInputPlugin2 withoutHost(nullptr);
    QCOMPARE(withoutHost.onQuery(u"anything"_s), QStringList());
}

void tst_PluginStatus::drop_data()
{
    QTest::addColumn<int>("bytes");

    QTest::newRow("0") << 0;
    QTest::newRow("1") << 1;
    QTest::newRow("-1") << -1;
    QTest::newRow("greatest") << std::numeric_limits<int>::max();
    QTest::newRow("least") << std::numeric_limits<int>::min();
}

void tst_PluginStatus::drop()
{
    QFETCH(int, bytes);

    Plugin plugin;
    plugin.drop(bytes);
    QCOMPARE(takeLog(), QStringList{u"I: TcpInputPlugin2(p): dropping %1 bytes"_s.arg(bytes)});
    QCOMPARE(plugin.getStatus(), u"Listen: :0, timeout: 60s, pool size: 4\r\n"_s);
}

QTEST_GUILESS_MAIN(tst_PluginStatus)
#include "tst_pluginstatus.moc"
