// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "tcpinput/tcpclient2.h"
#include "tcpinput/tcptask2.h"
#include "tests/kit/eventlog.h"
#include "tests/kit/hangguard.h"
#include "tests/kit/worker.h"
#include "tests/tcpinput/stoppingtest.h"

#include <QtCore/QCoreApplication>
#include <QtCore/QPointer>
#include <QtCore/QThread>
#include <QtTest/QTest>

#include <memory>

using namespace stoppingtest;

// The task's destructor: in the worker, and when the worker ends.
class tst_TaskDestruction : public StoppingTest
{
    Q_OBJECT

private Q_SLOTS:
    void init() { begin(); }
    void cleanup() { end(); }

    void destructionMakesTheLastOffers_data();
    void destructionMakesTheLastOffers();
    void destructionAfterStop();
    void destructionWithTheThread();
    void destructionBeforeTheFirstConnection();
    void destructionInAThreadThatNeverRan();
};

void tst_TaskDestruction::destructionMakesTheLastOffers_data()
{
    addSeenRows();
}

void tst_TaskDestruction::destructionMakesTheLastOffers()
{
    QFETCH(bool, seen);
    makeTask(nullptr);
    addClients(4);
    const auto clients = task->findChildren<TcpClient2 *>();
    const QPointer<TcpClient2> one = clients[2];
    QVERIFY(sendToAll());
    if (seen)
        QTRY_COMPARE_WITH_TIMEOUT(records->size(), 4, HangGuardMs);
    records->takeMessages();
    EventLog::take();

    delete task;

    QVERIFY(!one);
    QCOMPARE(records->takeMessages(), messagesOf(4));
    QCOMPARE(EventLog::take().filter(QStringLiteral("D: TcpClient: closing connection ")).size(),
             4);
    for (const SocketPair &pair : pairs)
        QVERIFY(pair.device.ends());
    QCoreApplication::processEvents();
}

void tst_TaskDestruction::destructionAfterStop()
{
    makeTask(nullptr);
    task->stop();
    addClients(3); // their hand-over was queued behind the stop
    QVERIFY(sendToAll());

    delete task;
    QCOMPARE(records->takeMessages(), messagesOf(3));
}

// Everything at once: the worker is busy, the task is retired, and the thread is told to quit.
void tst_TaskDestruction::destructionWithTheThread()
{
    worker = std::make_unique<Worker>();
    makeTask(worker->thread.get());
    QThread *destroyedIn = nullptr;
    connect(
            task, &QObject::destroyed, task, [&] { destroyedIn = QThread::currentThread(); },
            Qt::DirectConnection);
    worker->run([this] { addClients(20); });
    worker->block();
    QVERIFY(sendToAll());
    QVERIFY(QMetaObject::invokeMethod(task, "stop", Qt::QueuedConnection));
    worker->thread->quit();
    task->deleteLater();
    worker->release();
    QVERIFY(worker->thread->wait());

    QVERIFY(!task);
    QCOMPARE(destroyedIn, worker->thread.get());
    QCOMPARE(records->takeLast(20), messagesOf(20));
}

// The connection was dealt to the task, but the task has not taken it yet.
void tst_TaskDestruction::destructionBeforeTheFirstConnection()
{
    worker = std::make_unique<Worker>();
    makeTask(worker->thread.get());
    worker->block();
    const auto addFirst = [this] {
        addClient();
        QVERIFY(sendToAll());
    };
    QMetaObject::invokeMethod(task, addFirst, Qt::QueuedConnection);
    worker->thread->quit();
    task->deleteLater();
    worker->release();
    QVERIFY(worker->thread->wait());

    QVERIFY(!task);
    QCOMPARE(records->takeMessages(), messagesOf(1));
}

void tst_TaskDestruction::destructionInAThreadThatNeverRan()
{
    QThread neverStarted;
    makeTask(&neverStarted);
    delete task;
    QCOMPARE(EventLog::take(), QStringList());
}

// Qt's own event dispatcher in the test's thread: GLib's would hide events that are processed in
// the wrong thread.
int main(int argc, char *argv[])
{
    qputenv("QT_NO_GLIB", "1");
    QCoreApplication app(argc, argv);
    tst_TaskDestruction test;
    return QTest::qExec(&test, argc, argv);
}
#include "tst_taskdestruction.moc"
