// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "tcpinput/tcptask2.h"
#include "tests/kit/hangguard.h"
#include "tests/kit/loglines.h"
#include "tests/kit/nativesocket.h"
#include "tests/tcpinput/plugintest.h"

#include <QtTest/QTest>

#include <atomic>
#include <limits>
#include <memory>
#include <thread>
#include <vector>

using namespace Qt::StringLiterals;
using namespace plugintest;

// Discards reach the task and the client that they name, from any thread.
class tst_PluginDiscard : public PluginTest
{
    Q_OBJECT

private Q_SLOTS:
    void init() { begin(); }
    void cleanup() { end(); }

    void discardIsRouted_data();
    void discardIsRouted();
    void discardWithoutTask();
    void discardCuts();
    void discardFromOtherThreads();
};

void tst_PluginDiscard::discardIsRouted_data()
{
    QTest::addColumn<SubIdMap>("subid");
    QTest::addColumn<QString>("line");

    const QString notSet = u"D: TcpInput2(p): subid[task] not set"_s;
    QTest::newRow("empty map") << SubIdMap() << notSet;
    QTest::newRow("client alone") << SubIdMap{{u"client"_s, u"x"_s}} << notSet;
    QTest::newRow("Task") << SubIdMap{{u"Task"_s, u"0"_s}} << notSet;

    const auto unknown = [](const QString &text, int number) {
        QTest::newRow(qPrintable(u"unknown "_s + text))
                << SubIdMap{{u"task"_s, text}, {u"client"_s, u"x"_s}}
                << u"D: TcpInput2(p): discarding for non-existing task %1"_s.arg(number);
    };
    unknown(u"2"_s, 2); // there are tasks 0 and 1
    unknown(u"-1"_s, -1);
    unknown(u"2147483647"_s, std::numeric_limits<int>::max());
    unknown(u"-2147483648"_s, std::numeric_limits<int>::min());

    const auto forwarded = [](const QString &text) {
        QTest::newRow(qPrintable(u"forwarded "_s + text))
                << SubIdMap{{u"task"_s, text}, {u"client"_s, u"x"_s}}
                << u"D: TcpTask2: discard for non-existing client x"_s;
        QTest::newRow(qPrintable(u"forwarded without client "_s + text))
                << SubIdMap{{u"task"_s, text}} << u"D: TcpTask2: subid[client] not set"_s;
    };
    forwarded(u"0"_s);
    forwarded(u"1"_s);
    // A text that is no decimal int means task 0.
    forwarded(u"abc"_s);
    forwarded(QString());
    forwarded(u"1x"_s);
    forwarded(u"1.5"_s);
    forwarded(u"0x2"_s);
    forwarded(u"2147483648"_s);
    forwarded(u"-2147483649"_s);
    forwarded(u"99999999999999999999"_s);
}

void tst_PluginDiscard::discardIsRouted()
{
    QFETCH(SubIdMap, subid);
    QFETCH(QString, line);

    Plugin plugin;
    QVERIFY(plugin.start());
    std::vector<NativeSocket> devices;
    devices.push_back(plugin.connectDevice());
    devices.push_back(plugin.connectDevice());
    QTRY_COMPARE_WITH_TIMEOUT(plugin.getStatus().count(u"tcp2:"_s), 2, HangGuardMs);
    passQueueOf(plugin.workers().allTasks().value(0)); // has told of its connection now
    passQueueOf(plugin.workers().allTasks().value(1));
    takeLog();
    plugin.discard(5, subid);
    QCOMPARE(takeLog(), QStringList{line});
    passQueueOf(plugin.workers().allTasks().value(0));
    passQueueOf(plugin.workers().allTasks().value(1));
    QCOMPARE(takeLog(), QStringList());
}

void tst_PluginDiscard::discardWithoutTask()
{
    Plugin plugin;
    plugin.discard(5, {{u"task"_s, u"abc"_s}});
    QCOMPARE(takeLog(), QStringList{u"D: TcpInput2(p): discarding for non-existing task 0"_s});
}

void tst_PluginDiscard::discardCuts()
{
    Plugin plugin;
    QVERIFY(plugin.start());
    const NativeSocket device = plugin.connectDevice();
    const QByteArray bytes("0123456789abcdefghijklmnopqrstuvwxyz"); // 36
    QVERIFY(device.send(bytes));
    const auto record = plugin.recordOf(bytes);
    QVERIFY(record);
    const SubIdMap subid = record->getPluginSubId();
    takeLog();

    plugin.records.clear();
    plugin.discard(0, subid); // passed on like any other
    QVERIFY(plugin.recordOf(bytes));
    plugin.discard(10, subid);
    const auto rest = plugin.recordOf(bytes.mid(10));
    QVERIFY(rest);
    QCOMPARE(rest->getPluginSubId(), subid);

    // From another thread, and with a text that is no number and so means task 0.
    const SubIdMap named{{u"task"_s, u"abc"_s}, {u"client"_s, subid.value(u"client"_s)}};
    std::thread([&] { plugin.discard(5, named); }).join();
    QVERIFY(plugin.recordOf(bytes.mid(15)));
    QCOMPARE(takeLog(),
             QStringList({u"D: TcpClient: inbuf still 36 bytes, triggering"_s,
                          u"D: TcpClient: inbuf still 26 bytes, triggering"_s,
                          u"D: TcpClient: inbuf still 21 bytes, triggering"_s}));
}

// For the sanitizers: tasks and clients come and go while other threads discard.
void tst_PluginDiscard::discardFromOtherThreads()
{
    QMutex mutex; // outlives the plugin, whose destructor delivers
    SubIdMap latest; // guarded by mutex
    auto owner = std::make_unique<Plugin>(poolOf(3));
    Plugin &plugin = *owner;
    connect(&plugin, &IInputPlugin::receivedData, this, [&](const shared_parsedData &record) {
        const QMutexLocker locker(&mutex);
        latest = record->getPluginSubId();
    });

    // Without this, millions of lines would be captured.
    capture.reset();
    const auto handler =
            qInstallMessageHandler([](QtMsgType, const QMessageLogContext &, const QString &) {});

    std::atomic<bool> over = false;
    std::atomic<int> calls = 0;
    const auto discardAll = [&] {
        for (int n = 0; !over; ++n) {
            SubIdMap subid;
            {
                const QMutexLocker locker(&mutex);
                subid = latest;
            }
            plugin.discard(n % 3, subid);
            plugin.discard(1, {{u"task"_s, QString::number(n % 4)}, {u"client"_s, u"x"_s}});
            ++calls;
        }
    };
    std::thread one(discardAll);
    std::thread other(discardAll);

    bool failed = false;
    for (int cycle = 0; cycle < 40 && !failed; ++cycle) {
        const int callsBefore = calls;
        failed = !plugin.start();
        std::vector<NativeSocket> devices;
        for (int n = 0; n < 6; ++n) {
            devices.push_back(plugin.connectDevice());
            failed = failed || !devices.back().send("cycle " + QByteArray::number(cycle));
        }
        failed = failed
                || !QTest::qWaitFor(
                         [&] { return plugin.records.size() >= 6 && calls > callsBefore; },
                         HangGuardMs);
        failed = failed || !plugin.stop();
        plugin.records.clear();
    }
    over = true;
    one.join();
    other.join();
    owner.reset();
    qInstallMessageHandler(handler);
    capture.emplace();
    QVERIFY(!failed);
}

QTEST_GUILESS_MAIN(tst_PluginDiscard)
#include "tst_plugindiscard.moc"
