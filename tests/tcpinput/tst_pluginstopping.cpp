// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "tcpinput/tcpinputplugin2.h"
#include "tcpinput/tcptask2.h"
#include "tests/kit/hangguard.h"
#include "tests/kit/loglines.h"
#include "tests/kit/nativesocket.h"
#include "tests/tcpinput/plugintest.h"

#include <QtCore/QElapsedTimer>
#include <QtCore/QSemaphore>
#include <QtCore/QThread>
#include <QtTest/QSignalSpy>
#include <QtTest/QTest>

#include <memory>
#include <vector>

using namespace Qt::StringLiterals;
using namespace plugintest;

namespace {

const QString StopLine = u"D: TcpInputPlugin2(p): stop()"_s;
const QString FinishedLine = u"D:   -- TI2: thread finished"_s;
const QString NoSocketLine = u"W: TcpTask2: Creating receiving socket failed"_s;

//! Keeps a task's thread busy while it lives.
class Busy
{
public:
    explicit Busy(TcpTask2 *task)
    {
        const auto entered = std::make_shared<QSemaphore>();
        QMetaObject::invokeMethod(
                task,
                [entered, end = end] {
                    entered->release();
                    end->acquire();
                },
                Qt::QueuedConnection);
        entered->acquire();
    }
    ~Busy() { end->release(); }
    Q_DISABLE_COPY_MOVE(Busy)

private:
    const std::shared_ptr<QSemaphore> end = std::make_shared<QSemaphore>();
};

} // namespace

// stop(), and the start() that follows.
class tst_PluginStopping : public PluginTest
{
    Q_OBJECT

private Q_SLOTS:
    void init() { begin(); }
    void cleanup() { end(); }

    void stopBeforeStart();
    void stopForgetsAtOnce();
    void stopDoesNotWait();
    void stopSignalReachesTasksAndThreads();
    void stopClosesConnections();
    void stopDeliversWhatIsLeft();
    void startAfterStop();
    void secondStartHandsOverTwice();
};

void tst_PluginStopping::stopBeforeStart()
{
    Plugin plugin;
    const QSignalSpy stopped(&plugin, &TcpInputPlugin2::stopSignal);
    QVERIFY(plugin.stop());
    QVERIFY(plugin.stop());
    QCOMPARE(takeLog(), QStringList({StopLine, StopLine}));
    QCOMPARE(stopped.count(), 2);
}

void tst_PluginStopping::stopForgetsAtOnce()
{
    Plugin plugin(poolOf(2));
    plugin.answer = QStringList{u"debug"_s};
    QVERIFY(plugin.start());
    std::vector<NativeSocket> devices;
    for (int n = 0; n < 2; ++n)
        devices.push_back(plugin.connectDevice());
    QTRY_COMPARE_WITH_TIMEOUT(plugin.getStatus().count(u"tcp2:"_s), 2, HangGuardMs);
    const QList<QPointer<TcpTask2>> tasks{plugin.workers().allTasks().value(0),
                                          plugin.workers().allTasks().value(1)};
    const QList<QPointer<QThread>> threads{tasks[0]->thread(), tasks[1]->thread()};

    takeLog();
    QElapsedTimer time;
    time.start();
    QVERIFY(plugin.stop());
    QVERIFY(time.elapsed() >= 10);
    QCOMPARE(takeLog().first(), StopLine);

    QVERIFY(plugin.workers().allTasks().isEmpty());
    QVERIFY(plugin.workers().allThreads().isEmpty());
    QCOMPARE(plugin.getStatus(), u"Listen: :0, timeout: 60s, pool size: 2\r\n"_s);
    plugin.showThreads();
    plugin.discard(1, {{u"task"_s, u"0"_s}});
    const QStringList lines = takeLog();
    QVERIFY(lines.contains(reportLine(0, 0)));
    QVERIFY(lines.contains(u"D: TcpInput2(p): discarding for non-existing task 0"_s));

    // A second stop() while the workers wind down.
    QVERIFY(plugin.stop());
    QStringList later;
    QTRY_COMPARE_WITH_TIMEOUT((later += takeLog()).count(FinishedLine), 2, HangGuardMs);
    QTRY_VERIFY_WITH_TIMEOUT(!threads[0] && !threads[1], HangGuardMs);
    QVERIFY(!tasks[0] && !tasks[1]);
    QCOMPARE((later += takeLog()).count(FinishedLine), 2);
}

void tst_PluginStopping::stopDoesNotWait()
{
    Plugin plugin;
    TcpTask2 *task = plugin.getTask();
    const QPointer<QThread> thread = task->thread();
    {
        const Busy busy(task);
        QVERIFY(plugin.stop()); // would hang if it waited
        QVERIFY(thread->isRunning());
        QVERIFY(plugin.workers().allTasks().isEmpty());
    }
    QTRY_VERIFY_WITH_TIMEOUT(!thread, HangGuardMs);
}

void tst_PluginStopping::stopSignalReachesTasksAndThreads()
{
    Plugin plugin;
    QVERIFY(plugin.start());
    const NativeSocket device = plugin.connectDevice();
    QTRY_COMPARE_WITH_TIMEOUT(plugin.getStatus().count(u"tcp2:"_s), 1, HangGuardMs);
    const QThread *thread = plugin.workers().allTasks().first()->thread();

    Q_EMIT plugin.stopSignal();
    QVERIFY(device.ends()); // the task has stopped, without a turn of this thread's event loop
    QVERIFY(thread->isRunning());
    QTRY_VERIFY_WITH_TIMEOUT(thread->isFinished(), HangGuardMs);
    QCOMPARE(plugin.workers().allThreads().size(), 1); // a finished thread stays
    qsizetype finished = 0;
    QTRY_VERIFY_WITH_TIMEOUT((finished += takeLog().count(FinishedLine)) == 1, HangGuardMs);

    // Otherwise only the plugin emits this signal, and stop() has the task deleted before the
    // thread ends. Here the test emits it, so the thread must run once more to delete the task.
    plugin.workers().allThreads().first()->start();
}

void tst_PluginStopping::stopClosesConnections()
{
    Plugin plugin;
    QVERIFY(plugin.start());
    const NativeSocket device = plugin.connectDevice();
    QTRY_COMPARE_WITH_TIMEOUT(plugin.getStatus().count(u"tcp2:"_s), 1, HangGuardMs);
    QVERIFY(plugin.stop());
    QVERIFY(device.ends());
    QVERIFY(!plugin.connectDevice().isValid());
}

void tst_PluginStopping::stopDeliversWhatIsLeft()
{
    Plugin plugin;
    QVERIFY(plugin.start());
    const NativeSocket device = plugin.connectDevice();
    QVERIFY(device.send("left"));
    QVERIFY(plugin.recordOf("left"));
    plugin.records.clear();
    QVERIFY(plugin.stop());
    const auto record = plugin.recordOf("left");
    QVERIFY(record);
    QCOMPARE(record->getPluginId(), u"p"_s);
}

// The rotation goes on where it was.
void tst_PluginStopping::startAfterStop()
{
    Plugin plugin;
    QVERIFY(plugin.start());
    NativeSocket device = plugin.connectDevice();
    QTRY_COMPARE_WITH_TIMEOUT(plugin.workers().turn(), 1, HangGuardMs);
    QVERIFY(plugin.stop());
    QCOMPARE(plugin.workers().turn(), 1);

    QVERIFY(plugin.start());
    QVERIFY(plugin.findChild<TcpServer *>()->isListening());
    device = plugin.connectDevice();
    QVERIFY(device.send("again"));
    QVERIFY(plugin.recordOf("again"));
    QVERIFY(plugin.workers().allTasks().contains(1));
    QVERIFY(!plugin.workers().allTasks().contains(0));
    takeLog(); // a second hand-over may have found nothing to take
}

void tst_PluginStopping::secondStartHandsOverTwice()
{
    Plugin plugin;
    QVERIFY(plugin.start());
    QVERIFY(plugin.start());
    TcpTask2 *first = plugin.getTask();
    takeLog();

    // While the first task is busy, the second call finds the connection still pending, and hands
    // it over to another task. That task finds nothing to take: the connection is the first task's.
    NativeSocket device;
    {
        const Busy busy(first);
        device = plugin.connectDevice();
        QVERIFY(device.send("twice"));
        QTRY_COMPARE_WITH_TIMEOUT(plugin.workers().turn(), 2, HangGuardMs);
        TcpTask2 *second = plugin.workers().allTasks().value(1);
        passQueueOf(second);
        const QStringList lines = takeLog();
        QCOMPARE(lines.count(newConnectionLine()), 2);
        QCOMPARE(lines.mid(lines.size() - 2),
                 QStringList(
                         {u"D: TcpTask2: Handling TCP connection, %1"_s.arg(threadNumberOf(second)),
                          NoSocketLine}));
    }
    QCOMPARE(plugin.taskOf("twice"), u"0"_s);
    QCOMPARE(plugin.getStatus().count(u"tcp2:"_s), 1);
    QVERIFY(takeLog().filter(NoSocketLine).isEmpty());

    // The plugin keeps working.
    const NativeSocket another = plugin.connectDevice();
    QVERIFY(another.send("another"));
    QVERIFY(plugin.recordOf("another"));
    takeLog();
}

QTEST_GUILESS_MAIN(tst_PluginStopping)
#include "tst_pluginstopping.moc"
