// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "tcpinput/tcptask2.h"
#include "tests/kit/eventlog.h"
#include "tests/kit/hangguard.h"
#include "tests/kit/worker.h"
#include "tests/tcpinput/stoppingtest.h"

#include <QtCore/QCoreApplication>
#include <QtCore/QThread>
#include <QtTest/QTest>

#include <atomic>
#include <memory>

using namespace stoppingtest;

namespace {

//! Counts the events that post() sends to it.
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

// stop(), from every thread and twice.
class tst_TaskStopping : public StoppingTest
{
    Q_OBJECT

private Q_SLOTS:
    void init() { begin(); }
    void cleanup() { end(); }

    void stopInTheTasksThread_data();
    void stopInTheTasksThread();
    void stopTwice();
    void stopReturnsThoughEventsGoOn();
    void stopFromAnotherThread();
    void stopLeavesTheMakersEventsAlone();
    void deletionDuringStop();
    void deletionBeforeStop();

private:
    void noteStopAndEnd();
    static QStringList takeNotes();
};

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
    // stop() makes at least one pass, however long that takes.
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

// stop() posts to the worker. The events that it processes are the calling thread's.
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

// In the worker, stop() processes the worker's events, whichever thread made the task.
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

// The plugin may retire a task before its worker comes to the task's stop().
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
    // stop() processes this call, after the deletion was asked for.
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
    worker->post([] { EventLog::note(QStringLiteral("afterwards")); });
    EventLog::take();
    worker->release();
    worker->run([] {});

    QTRY_VERIFY_WITH_TIMEOUT(!task, HangGuardMs);
    worker->run([] {});
    QCOMPARE(takeNotes(),
             QStringList({QStringLiteral("stopping"), QStringLiteral("afterwards"),
                          QStringLiteral("destroyed")})); // at the end of the turn
    QCOMPARE(records->takeLast(5), messagesOf(5));
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
