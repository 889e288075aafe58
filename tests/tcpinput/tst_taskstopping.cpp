// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "tcpinput/accept/tcpserver.h"
#include "tcpinput/tcpclient2.h"
#include "tcpinput/tcptask2.h"
#include "tests/kit/eventlog.h"
#include "tests/kit/hangguard.h"
#include "tests/kit/preparedserver.h"
#include "tests/kit/worker.h"

#include <QtCore/QCoreApplication>
#include <QtCore/QMutex>
#include <QtCore/QPointer>
#include <QtCore/QSet>
#include <QtCore/QThread>
#include <QtTest/QTest>

#include <atomic>
#include <memory>
#include <thread>
#include <vector>

namespace {

const QHostAddress LocalAddress(QStringLiteral("127.63.0.1"));
const QHostAddress PeerAddress(QStringLiteral("127.63.0.2"));

QByteArray bytesOf(int number)
{
    return "bytes of device " + QByteArray::number(number);
}

// Comes back only if nobody is writing to the registry: another thread reads in it.
bool isUnlocked(const TcpTask2 &task)
{
    auto result = TcpTask2::DiscardResult::Posted;
    std::thread([&] {
        result = task.tryDiscard(0, {{QStringLiteral("client"), QString()}});
    }).join();
    return result == TcpTask2::DiscardResult::NoSuchClient;
}

//! The records of a task, taken in its thread, so that none depends on another thread's events.
class Records
{
public:
    explicit Records(const TcpTask2 *task)
    {
        QObject::connect(
                task, &TcpTask2::receivedData, task,
                [this, task](const shared_parsedData &data) {
                    if (looksForLock)
                        lockHeld = lockHeld || !isUnlocked(*task);
                    const QMutexLocker locker(&mutex);
                    messages.append(data->getOriginalMessage());
                    subIds.append(data->getPluginSubId());
                },
                Qt::DirectConnection);
    }

    qsizetype size()
    {
        const QMutexLocker locker(&mutex);
        return messages.size();
    }
    QList<QByteArray> takeMessages()
    {
        const QMutexLocker locker(&mutex);
        return std::exchange(messages, {});
    }
    // A worker that comes to its sockets once more before it stops offers the same twice.
    QList<QByteArray> takeLast(qsizetype count)
    {
        const QList<QByteArray> all = takeMessages();
        return all.mid(qMax(qsizetype(0), all.size() - count));
    }
    QMap<QString, QString> lastSubId()
    {
        const QMutexLocker locker(&mutex);
        return subIds.isEmpty() ? QMap<QString, QString>() : subIds.last();
    }

    std::atomic<bool> looksForLock = false; // which takes a thread for each record
    std::atomic<bool> lockHeld = false; // while one was emitted

private:
    QMutex mutex;
    QList<QByteArray> messages; // guarded by mutex
    QList<QMap<QString, QString>> subIds; // guarded by mutex
};

//! Sets a flag when it is asked to.
class EventCounter : public QObject
{
public:
    void post() { QCoreApplication::postEvent(this, new QEvent(QEvent::User)); }
    bool event(QEvent *event) override
    {
        if (event->type() != QEvent::User)
            return QObject::event(event);
        ++count;
        if (QThread::currentThread() != thread())
            ++elsewhere;
        return true;
    }

    std::atomic<int> count = 0;
    std::atomic<int> elsewhere = 0; // in a thread other than this object's
};

} // namespace

// The ends of tasks, in a thread of their own.
class tst_TaskStopping : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init();
    void cleanup();

    void stopInTheTasksThread_data();
    void stopInTheTasksThread();
    void stopTwice();
    void stopReturnsThoughEventsGoOn();
    void stopFromAnotherThread();
    void stopLeavesTheMakersEventsAlone();
    void deletionDuringStop();
    void deletionBeforeStop();

    void destructionMakesTheLastOffers_data();
    void destructionMakesTheLastOffers();
    void destructionAfterStop();
    void destructionWithTheThread();
    void destructionBeforeTheFirstConnection();
    void destructionInAThreadThatNeverRan();

    void callsDoNotWaitForTheWorker();
    void noLockIsHeldWhileEmittingOrLogging();
    void discardsAndInfoWhileClientsComeAndGo();

private:
    void makeTask(QThread *thread);
    void addClient();
    void addClients(int count);
    bool sendToAll();
    static QList<QByteArray> messagesOf(int count);
    static void addSeenRows();
    void noteStopAndEnd();
    static QStringList takeNotes();

    std::unique_ptr<EventLog> log;
    std::unique_ptr<PreparedTcpServer> server;
    std::vector<SocketPair> pairs;
    std::unique_ptr<Worker> worker;
    QPointer<TcpTask2> task;
    std::unique_ptr<Records> records;
};

void tst_TaskStopping::init()
{
    log = std::make_unique<EventLog>();
    server = std::make_unique<PreparedTcpServer>();
}

void tst_TaskStopping::cleanup()
{
    if (worker)
        worker->quitAndWait();
    worker.reset();
    delete task;
    records.reset();
    pairs.clear();
    server.reset();
    log.reset();
}

// Null: the test's thread.
void tst_TaskStopping::makeTask(QThread *thread)
{
    task = new TcpTask2(nullptr);
    records = std::make_unique<Records>(task);
    if (!thread)
        return;
    task->moveToThread(thread);
    connect(thread, &QThread::finished, task, &QObject::deleteLater, Qt::DirectConnection);
}

// In the task's thread.
void tst_TaskStopping::addClient()
{
    pairs.push_back(SocketPair::connected(LocalAddress, PeerAddress));
    server->prepare(pairs.back());
    Connection conn;
    conn.setTimeout(600000);
    conn.setTcpServer(server.get());
    task->addConnection(conn);
}

void tst_TaskStopping::addClients(int count)
{
    for (int i = 0; i < count; ++i)
        addClient();
}

// What the devices send stays in the kernel: nothing runs an event loop.
bool tst_TaskStopping::sendToAll()
{
    int number = 0;
    for (const SocketPair &pair : pairs) {
        if (!pair.device.send(bytesOf(number++)))
            return false;
    }
    number = 0;
    for (const auto *socket : task->findChildren<QTcpSocket *>()) {
        if (!NativeSocket::waitForArrival(int(socket->socketDescriptor()),
                                          int(bytesOf(number++).size())))
            return false;
    }
    return true;
}

QList<QByteArray> tst_TaskStopping::messagesOf(int count)
{
    QList<QByteArray> messages;
    for (int i = 0; i < count; ++i)
        messages.append(bytesOf(i));
    return messages;
}

// Whether the bytes of the last offer have been offered before, or are still in the kernel.
void tst_TaskStopping::addSeenRows()
{
    QTest::addColumn<bool>("seen");
    QTest::newRow("seen") << true;
    QTest::newRow("unseen") << false;
}

void tst_TaskStopping::stopInTheTasksThread_data()
{
    addSeenRows();
}

void tst_TaskStopping::stopInTheTasksThread()
{
    QFETCH(bool, seen);
    makeTask(nullptr);
    addClients(3);
    QVERIFY(sendToAll());
    if (seen)
        QTRY_COMPARE_WITH_TIMEOUT(records->size(), 3, HangGuardMs);
    records->takeMessages();
    EventLog::take();

    task->stop();
    // One pass at least, however long it takes.
    QCOMPARE(EventLog::take().filter(QStringLiteral("D: TcpClient: closing connection ")).size(),
             3);

    QTRY_COMPARE_WITH_TIMEOUT(task->getInfo(), QString(), HangGuardMs);
    QCOMPARE(records->takeMessages(), messagesOf(3));
    QTRY_VERIFY_WITH_TIMEOUT(task->children().isEmpty(), HangGuardMs);
}

void tst_TaskStopping::stopTwice()
{
    makeTask(nullptr);
    addClients(2);
    QVERIFY(sendToAll());
    task->stop();
    task->stop();
    QTRY_VERIFY_WITH_TIMEOUT(task->children().isEmpty(), HangGuardMs);
    task->stop();

    QCOMPARE(records->takeMessages(), messagesOf(2));
    QCOMPARE(EventLog::take().filter(QStringLiteral("D: TcpClient: closing connection ")).size(),
             2);
}

void tst_TaskStopping::stopReturnsThoughEventsGoOn()
{
    makeTask(nullptr);
    class Endless : public EventCounter
    {
    public:
        bool event(QEvent *event) override
        {
            if (event->type() == QEvent::User)
                post();
            return EventCounter::event(event);
        }
    } endless;
    endless.post();

    task->stop();
    QVERIFY(endless.count > 0);
}

// It posts to the worker, and the events that it processes are the caller's.
void tst_TaskStopping::stopFromAnotherThread()
{
    worker = std::make_unique<Worker>();
    makeTask(worker->thread.get());
    worker->run([this] { addClients(3); });
    worker->block();
    QVERIFY(sendToAll());
    EventCounter mine;
    EventCounter workers;
    workers.moveToThread(worker->thread.get());
    EventLog::take();
    workers.post();
    mine.post();

    task->stop();
    QCOMPARE(mine.count, 1);
    QCOMPARE(mine.elsewhere, 0);
    QCOMPARE(workers.count, 0);
    QCOMPARE(EventLog::take(), QStringList());

    worker->release();
    worker->run([] {});
    QTRY_COMPARE_WITH_TIMEOUT(task->getInfo(), QString(), HangGuardMs);
    QCOMPARE(records->takeLast(3), messagesOf(3));
    QCOMPARE(workers.count, 1);
    QCOMPARE(workers.elsewhere, 0);
    worker->run([&] { workers.moveToThread(QCoreApplication::instance()->thread()); });
}

// Whoever made the task: in the worker, stop() processes the worker's events.
void tst_TaskStopping::stopLeavesTheMakersEventsAlone()
{
    worker = std::make_unique<Worker>();
    makeTask(worker->thread.get());
    EventCounter mine;
    EventCounter workers;
    workers.moveToThread(worker->thread.get());
    mine.post();

    worker->run([&] {
        workers.post();
        task->stop();
        QCOMPARE(workers.count, 1);
    });
    QCOMPARE(mine.count, 0);

    QCoreApplication::processEvents();
    QCOMPARE(mine.count, 1);
    QCOMPARE(mine.elsewhere, 0);
    worker->run([&] { workers.moveToThread(QCoreApplication::instance()->thread()); });
}

void tst_TaskStopping::noteStopAndEnd()
{
    connect(
            task, &TcpTask2::stopTimer, task, [] { EventLog::note(QStringLiteral("stopping")); },
            Qt::DirectConnection);
    connect(
            task, &QObject::destroyed, task,
            [this] {
                EventLog::note(QThread::currentThread() == worker->thread.get()
                                       ? QStringLiteral("destroyed")
                                       : QStringLiteral("destroyed elsewhere"));
            },
            Qt::DirectConnection);
}

// Without the log lines.
QStringList tst_TaskStopping::takeNotes()
{
    QStringList notes = EventLog::take();
    notes.removeIf([](const QString &line) { return line.startsWith(QLatin1String("D: ")); });
    return notes;
}

// The plugin retires a task whose worker comes to its stop() only then.
void tst_TaskStopping::deletionDuringStop()
{
    worker = std::make_unique<Worker>();
    makeTask(worker->thread.get());
    worker->run([this] { addClients(5); });
    noteStopAndEnd();
    worker->block();
    QVERIFY(sendToAll());
    QVERIFY(QMetaObject::invokeMethod(task, "stop", Qt::QueuedConnection));
    task->deleteLater();
    // Processed by stop(), after the deletion was asked for.
    worker->post([] { EventLog::note(QStringLiteral("still inside")); });
    EventLog::take();
    worker->release();
    worker->run([] {});

    QTRY_VERIFY_WITH_TIMEOUT(!task, HangGuardMs);
    worker->run([] {});
    QCOMPARE(takeNotes(),
             QStringList({QStringLiteral("stopping"), QStringLiteral("still inside"),
                          QStringLiteral("destroyed")}));
    QCOMPARE(records->takeLast(5), messagesOf(5));
}

// The deletion overtakes the stop: the last offers are made all the same.
void tst_TaskStopping::deletionBeforeStop()
{
    worker = std::make_unique<Worker>();
    makeTask(worker->thread.get());
    worker->run([this] { addClients(5); });
    noteStopAndEnd();
    worker->block();
    QVERIFY(sendToAll());
    task->deleteLater();
    QVERIFY(QMetaObject::invokeMethod(task, "stop", Qt::QueuedConnection));
    // Not processed by that stop(): a task that dies runs nobody else's events.
    worker->post([] { EventLog::note(QStringLiteral("afterwards")); });
    EventLog::take();
    worker->release();
    worker->run([] {});

    QTRY_VERIFY_WITH_TIMEOUT(!task, HangGuardMs);
    worker->run([] {});
    QCOMPARE(takeNotes(),
             QStringList({QStringLiteral("stopping"), QStringLiteral("destroyed"),
                          QStringLiteral("afterwards")}));
    QCOMPARE(records->takeLast(5), messagesOf(5));
}

void tst_TaskStopping::destructionMakesTheLastOffers_data()
{
    addSeenRows();
}

void tst_TaskStopping::destructionMakesTheLastOffers()
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

void tst_TaskStopping::destructionAfterStop()
{
    makeTask(nullptr);
    task->stop();
    addClients(3); // their hand-over was queued behind the stop
    QVERIFY(sendToAll());

    delete task;
    QCOMPARE(records->takeMessages(), messagesOf(3));
}

// Everything at once: the worker is busy, the task is retired, and its thread told to quit.
void tst_TaskStopping::destructionWithTheThread()
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

// It was dealt to the task, which has not come to it.
void tst_TaskStopping::destructionBeforeTheFirstConnection()
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

void tst_TaskStopping::destructionInAThreadThatNeverRan()
{
    QThread neverStarted;
    makeTask(&neverStarted);
    delete task;
    QCOMPARE(EventLog::take(), QStringList());
}

void tst_TaskStopping::callsDoNotWaitForTheWorker()
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

void tst_TaskStopping::noLockIsHeldWhileEmittingOrLogging()
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
void tst_TaskStopping::discardsAndInfoWhileClientsComeAndGo()
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
    // The discards cut nothing, they only have everything offered again.
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
    tst_TaskStopping test;
    return QTest::qExec(&test, argc, argv);
}
#include "tst_taskstopping.moc"
