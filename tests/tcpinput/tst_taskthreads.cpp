// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "tcpinput/accept/tcpserver.h"
#include "tcpinput/tcptask2.h"
#include "tests/kit/eventlog.h"
#include "tests/kit/hangguard.h"
#include "tests/kit/worker.h"
#include "tests/tcpinput/stoppingtest.h"

#include <QtCore/QCoreApplication>
#include <QtCore/QSet>
#include <QtCore/QThread>
#include <QtTest/QTest>

#include <atomic>
#include <memory>
#include <vector>

using namespace stoppingtest;

// Calls from other threads while the worker works.
class tst_TaskThreads : public StoppingTest
{
    Q_OBJECT

private Q_SLOTS:
    void init() { begin(); }
    void cleanup() { end(); }

    void callsDoNotWaitForTheWorker();
    void noLockIsHeldWhileEmittingOrLogging();
    void discardsAndInfoWhileClientsComeAndGo();
};

void tst_TaskThreads::callsDoNotWaitForTheWorker()
{
    worker = std::make_unique<Worker>();
    makeTask(worker->thread.get());
    worker->run([this] {
        addClients(2);
        QVERIFY(sendToAll());
    });
    QTRY_COMPARE_WITH_TIMEOUT(records->size(), 2, HangGuardMs);
    const QMap<QString, QString> subid = records->lastSubId();
    worker->block();
    EventLog::take();

    QCOMPARE(task->getInfo().count(QStringLiteral("(empty 0)")), 2);
    task->discard(1, subid);
    QCOMPARE(EventLog::take(), QStringList());
    task->discard(1, {{QStringLiteral("client"), QStringLiteral("x")}});
    QCOMPARE(EventLog::take(),
             QStringList(QStringLiteral("D: TcpTask2: discard for non-existing client x")));
    worker->release();
}

void tst_TaskThreads::noLockIsHeldWhileEmittingOrLogging()
{
    static TcpTask2 *watched;
    static bool lockHeld;
    log.reset();
    makeTask(nullptr);
    records->looksForLock = true;
    watched = task;
    lockHeld = false;
    const auto previous =
            qInstallMessageHandler([](QtMsgType, const QMessageLogContext &, const QString &) {
                lockHeld = lockHeld || !isUnlocked(*watched);
            });
    int queries = 0;
    connect(task, &TcpTask2::query, this, [&] {
        ++queries;
        lockHeld = lockHeld || !isUnlocked(*watched);
        return QStringList();
    });

    addClients(2);
    QVERIFY(sendToAll());
    QTRY_COMPARE_WITH_TIMEOUT(records->size(), 2, HangGuardMs);
    task->getInfo();
    task->discard(1, {});
    task->discard(1, {{QStringLiteral("client"), QStringLiteral("x")}});
    task->logSize(QStringLiteral("p1"));
    task->stop();
    QTRY_VERIFY_WITH_TIMEOUT(task->children().isEmpty(), HangGuardMs);
    delete task;
    qInstallMessageHandler(previous);

    QCOMPARE(queries, 2);
    QVERIFY(!lockHeld);
    QVERIFY(!records->lockHeld);
}

// Connections come, speak and go, while other threads discard and ask for the status.
void tst_TaskThreads::discardsAndInfoWhileClientsComeAndGo()
{
    constexpr int DeviceThreads = 2;
    constexpr int ConnectionsEach = 150;
    worker = std::make_unique<Worker>();
    makeTask(worker->thread.get());
    TcpServer realServer(nullptr);
    QVERIFY(realServer.listen(LocalAddress, 0));
    const quint16 port = realServer.serverPort();
    connect(&realServer, &QTcpServer::newConnection, this, [&] {
        Connection conn;
        conn.setTimeout(600000);
        conn.setTcpServer(&realServer);
        QMetaObject::invokeMethod(task, "addConnection", Qt::QueuedConnection,
                                  Q_ARG(Connection, conn));
    });
    // The discards cut nothing: they only make the clients offer everything again.
    QSet<QByteArray> seen;
    connect(task, &TcpTask2::receivedData, this, [&](const shared_parsedData &data) {
        const QByteArray message = data->getOriginalMessage();
        if (message.endsWith('\n'))
            seen.insert(message);
    });

    std::vector<std::unique_ptr<QThread>> threads;
    std::atomic<int> devicesRunning = DeviceThreads;
    for (int device = 0; device < DeviceThreads; ++device) {
        threads.emplace_back(QThread::create([&, device] {
            for (int i = 0; i < ConnectionsEach; ++i) {
                NativeSocket socket = NativeSocket::connectedTo(LocalAddress, port);
                socket.send(QByteArray("message ") + QByteArray::number(i) + " of device thread "
                            + QByteArray::number(device) + '\n');
            }
            --devicesRunning;
        }));
    }
    std::atomic<bool> done = false;
    threads.emplace_back(QThread::create([&] {
        while (!done)
            task->discard(0, records->lastSubId());
    }));
    threads.emplace_back(QThread::create([&] {
        while (!done)
            task->getInfo(QStringLiteral("   "));
    }));
    for (const auto &thread : threads)
        thread->start();

    QTRY_COMPARE_WITH_TIMEOUT(seen.size(), DeviceThreads * ConnectionsEach, HangGuardMs);
    QTRY_COMPARE_WITH_TIMEOUT(devicesRunning, 0, HangGuardMs);
    QTRY_COMPARE_WITH_TIMEOUT(task->getInfo(), QString(), HangGuardMs);
    done = true;
    for (const auto &thread : threads)
        QVERIFY(thread->wait());
    worker->quitAndWait();
}

// Qt's own event dispatcher in the test's thread: GLib's would hide events that are processed in
// the wrong thread.
int main(int argc, char *argv[])
{
    qputenv("QT_NO_GLIB", "1");
    QCoreApplication app(argc, argv);
    tst_TaskThreads test;
    return QTest::qExec(&test, argc, argv);
}
#include "tst_taskthreads.moc"
