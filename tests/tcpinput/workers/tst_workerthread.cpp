// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "tcpinput/workers/workerthread.h"
#include "tests/kit/hangguard.h"
#include "tests/kit/loglines.h"
#include "tests/kit/messagecapture.h"
#include "tests/kit/nofreedescriptors.h"
#include "tests/kit/processresources.h"

#include <QtCore/QAbstractEventDispatcher>
#include <QtCore/QCoreApplication>
#include <QtCore/QSemaphore>
#include <QtCore/QTimer>
#include <QtTest/QTest>

#include <atomic>
#include <memory>
#include <vector>

// The thread that can be destroyed at any time.
class tst_WorkerThread : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase() { threadsBefore = runningThreads(); }
    void init() { capture = std::make_unique<MessageCapture>(); }
    void cleanup();

    void runsItsOwnDispatcher();
    void destructionWithoutStart();
    void destructionWhileRunning();
    void destructionRightAfterStart();
    void destructionAfterTheEnd();
    void quitBeforeANestedTurn();
    void destructionWaitsForTheEventInHand();
    void objectsDieInTheThread();
    void withoutDescriptors();
    void nothingIsLeft();

private:
    std::unique_ptr<MessageCapture> capture;
    qsizetype threadsBefore = 0;
};

void tst_WorkerThread::cleanup()
{
    QCOMPARE(takeLog(), QStringList());
    capture.reset();
    QCOMPARE(runningThreads(), threadsBefore);
}

void tst_WorkerThread::runsItsOwnDispatcher()
{
    const auto worker = WorkerThread::make();
    QVERIFY(worker);
    QObject context;
    context.moveToThread(worker.get());
    worker->start();

    QByteArray dispatcher;
    QThread *ranIn = nullptr;
    QMetaObject::invokeMethod(
            &context,
            [&] {
                ranIn = QThread::currentThread();
                dispatcher = QAbstractEventDispatcher::instance()->metaObject()->className();
                context.moveToThread(QCoreApplication::instance()->thread());
            },
            Qt::BlockingQueuedConnection);
    QCOMPARE(ranIn, worker.get());
    QCOMPARE(dispatcher, QByteArray("EpollEventDispatcher"));
}

void tst_WorkerThread::destructionWithoutStart()
{
    const qsizetype before = openDescriptors();
    auto worker = WorkerThread::make();
    QVERIFY(openDescriptors() > before);
    worker.reset();
    QCOMPARE(openDescriptors(), before);
}

void tst_WorkerThread::destructionWhileRunning()
{
    const qsizetype descriptors = openDescriptors();
    auto worker = WorkerThread::make();
    auto *timer = new QTimer;
    QSemaphore fired;
    QObject::connect(
            timer, &QTimer::timeout, timer, [&] { fired.release(); }, Qt::DirectConnection);
    QObject::connect(worker.get(), &QThread::started, timer, [timer] { timer->start(1); });
    QObject::connect(worker.get(), &QThread::finished, timer, &QObject::deleteLater);
    timer->moveToThread(worker.get());
    worker->start();
    QVERIFY(fired.tryAcquire(1, HangGuardMs));
    QCOMPARE(runningThreads(), threadsBefore + 1);

    worker.reset();
    QCOMPARE(openDescriptors(), descriptors);
}

void tst_WorkerThread::destructionRightAfterStart()
{
    for (int i = 0; i < 50; ++i)
        WorkerThread::make()->start();
}

void tst_WorkerThread::destructionAfterTheEnd()
{
    const auto worker = WorkerThread::make();
    worker->start();
    worker->quit();
    QVERIFY(worker->wait(HangGuardMs));
    QVERIFY(worker->isFinished());
}

void tst_WorkerThread::destructionWaitsForTheEventInHand()
{
    auto worker = WorkerThread::make();
    auto *context = new QObject;
    QObject::connect(worker.get(), &QThread::finished, context, &QObject::deleteLater);
    context->moveToThread(worker.get());
    worker->start();
    QSemaphore begun;
    std::atomic<bool> ended = false;
    QMetaObject::invokeMethod(context, [&] {
        begun.release();
        QThread::msleep(50); // long enough for a destructor that does not wait
        ended = true;
    });
    begun.acquire();

    worker.reset();
    QVERIFY(ended);
}

void tst_WorkerThread::objectsDieInTheThread()
{
    auto worker = WorkerThread::make();
    auto *object = new QObject;
    QThread *diedIn = nullptr;
    QObject::connect(
            object, &QObject::destroyed, object, [&] { diedIn = QThread::currentThread(); },
            Qt::DirectConnection);
    object->moveToThread(worker.get());
    worker->start();
    const QThread *const thread = worker.get();
    object->deleteLater();

    worker.reset();
    QCOMPARE(diedIn, thread);
}

// A thread takes two descriptors. If it can get only one, it keeps none.
void tst_WorkerThread::withoutDescriptors()
{
    const qsizetype before = openDescriptors();
    {
        NoFreeDescriptors noDescriptors;
        QVERIFY(!WorkerThread::isAvailable());
        QVERIFY(!WorkerThread::make());
        noDescriptors.giveBack(1);
        QVERIFY(!WorkerThread::isAvailable());
        QVERIFY(!WorkerThread::make());
        QVERIFY(!WorkerThread::make());
        noDescriptors.giveBack(1);
        QVERIFY(WorkerThread::isAvailable());
        const auto worker = WorkerThread::make();
        QVERIFY(worker);
        QVERIFY(!WorkerThread::isAvailable());
        // Running takes no more descriptors.
        worker->start();
        worker->quit();
        QVERIFY(worker->wait(HangGuardMs));
    }
    QCOMPARE(openDescriptors(), before);
}

// The nested turn must not swallow the wake-up that ends the outer loop.
void tst_WorkerThread::quitBeforeANestedTurn()
{
    for (int round = 0; round < 20; ++round) {
        const auto worker = WorkerThread::make();
        QObject object;
        object.moveToThread(worker.get());
        QMetaObject::invokeMethod(
                &object,
                [] {
                    QThread::currentThread()->quit();
                    QEventLoop().processEvents(QEventLoop::AllEvents, 10);
                },
                Qt::QueuedConnection);
        worker->start();
        QVERIFY(worker->wait(HangGuardMs));
    }
}

void tst_WorkerThread::nothingIsLeft()
{
    const qsizetype descriptors = openDescriptors();
    for (int round = 0; round < 20; ++round) {
        std::vector<std::unique_ptr<WorkerThread>> workers;
        for (int i = 0; i < 4; ++i) {
            workers.push_back(WorkerThread::make());
            workers.back()->start();
        }
    }
    QCOMPARE(openDescriptors(), descriptors);
}

QTEST_GUILESS_MAIN(tst_WorkerThread)
#include "tst_workerthread.moc"
