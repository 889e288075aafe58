// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "tcpinput/tcptask2.h"
#include "tcpinput/workers/threadid.h"
#include "tests/kit/hangguard.h"
#include "tests/kit/loglines.h"
#include "tests/kit/nativesocket.h"
#include "tests/tcpinput/plugintest.h"

#include <QtCore/QThread>
#include <QtTest/QTest>

#include <limits>

using namespace Qt::StringLiterals;
using namespace plugintest;

// The pool: threads, and their tasks.
class tst_PluginThreads : public PluginTest
{
    Q_OBJECT

private Q_SLOTS:
    void init() { begin(); }
    void cleanup() { end(); }

    void threadForNumber();
    void threadOfTaskIndex();
    void taskIsMadeWithItsThread();
    void taskTakesThreadThatIsThere();
};

void tst_PluginThreads::threadForNumber()
{
    Plugin plugin;
    QThread *first = plugin.getThread(0);
    QCOMPARE(takeLog(), QStringList{ThreadLine});
    QCOMPARE(first->objectName(), u"InpTcp2_1/4"_s);
    QCOMPARE(plugin.getThread(0), first);
    QCOMPARE(plugin.getThread(-3), first);
    QCOMPARE(plugin.getThread(-1), first);
    QCOMPARE(plugin.getThread(std::numeric_limits<int>::min()), first);
    QCOMPARE(takeLog(), QStringList());

    QThread *third = plugin.getThread(2);
    QCOMPARE(takeLog(), QStringList{ThreadLine});
    QVERIFY(third != first);
    QCOMPARE(third->objectName(), u"InpTcp2_3/4"_s);
    QCOMPARE(plugin.getThread(2), third);
    QThread *second = plugin.getThread(1);
    QCOMPARE(second->objectName(), u"InpTcp2_2/4"_s);
    // The pool's size does not limit the index.
    QCOMPARE(plugin.getThread(6)->objectName(), u"InpTcp2_7/4"_s);

    for (const QThread *thread : {first, second, third}) {
        QVERIFY(!thread->isRunning());
        QCOMPARE(thread->parent(), nullptr);
        QCOMPARE(thread->thread(), QThread::currentThread());
    }
    QCOMPARE(plugin.workers().allThreads().keys(), QList<int>({0, 1, 2, 6}));
    QVERIFY(plugin.workers().allTasks().isEmpty());
}

void tst_PluginThreads::threadOfTaskIndex()
{
    Plugin plugin;
    QVERIFY(plugin.start());
    const NativeSocket device = plugin.connectDevice();
    QTRY_COMPARE_WITH_TIMEOUT(plugin.workers().turn(), 1, HangGuardMs);
    passQueueOf(plugin.workers().allTasks().first()); // the worker has written all its lines
    takeLog();
    QThread *next = plugin.getThread(0);
    QCOMPARE(takeLog(), QStringList{ThreadLine});
    QCOMPARE(next->objectName(), u"InpTcp2_2/4"_s);
    QCOMPARE(plugin.getThread(-1), next);
    QCOMPARE(plugin.getThread(1), next);
}

void tst_PluginThreads::taskIsMadeWithItsThread()
{
    Plugin plugin;
    TcpTask2 *task = plugin.getTask();
    QCOMPARE(takeLog(), QStringList({ThreadLine, TaskLine}));
    QVERIFY(task);
    QCOMPARE(task->parent(), nullptr);
    QCOMPARE(task->thread(), plugin.getThread(0));
    QVERIFY(task->thread()->isRunning());
    QCOMPARE(task->thread()->objectName(), u"InpTcp2_1/4"_s);
    QVERIFY(threadNumberOf(task) != currentThreadNumber());

    QCOMPARE(plugin.getTask(), task);
    QCOMPARE(takeLog(), QStringList());
    QCOMPARE(plugin.workers().allTasks().keys(), QList<int>{0});
    QCOMPARE(plugin.workers().allThreads().keys(), QList<int>{0});
    QCOMPARE(plugin.workers().turn(), 0);
}

void tst_PluginThreads::taskTakesThreadThatIsThere()
{
    Plugin plugin;
    QThread *thread = plugin.getThread(0);
    takeLog();
    QCOMPARE(plugin.getTask()->thread(), thread);
    QCOMPARE(takeLog(), QStringList{TaskLine});
    QVERIFY(thread->isRunning());
}

QTEST_GUILESS_MAIN(tst_PluginThreads)
#include "tst_pluginthreads.moc"
