// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "tcpinput/workerpool.h"

#include "plugin/cwrn.h"
#include "tcpinput/workers/workerthread.h"

#include <utility>

WorkerPool::WorkerPool(const QString &pluginId, ThreadSetup forThread, TaskSetup forTask)
    : id(pluginId),
      setUpThread(std::move(forThread)),
      setUpTask(std::move(forTask))
{}

WorkerPool::~WorkerPool()
{
    for (const QPointer<QThread> &thread : std::as_const(retired))
        delete thread;
}

QThread *WorkerPool::thread(int number)
{
    if (QThread *thread = threads.value(number))
        return thread;

    CWRN(QtDebugMsg, QStringLiteral("TcpInputPlugin2(%1): Creating new TCP Thread"), id);
    // Made meanwhile: the line's handler may run the event loop. The same holds below.
    if (QThread *thread = threads.value(number))
        return thread;
    QThread *thread = WorkerThread::make().release();
    if (!thread)
        return nullptr;
    setUpThread(thread);
    thread->setObjectName(QStringLiteral("InpTcp2_%1/%2").arg(number + 1).arg(size));
    threads.insert(number, thread);
    return thread;
}

TcpTask2 *WorkerPool::task()
{
    const int number = index;
    if (TcpTask2 *task = existingTask(number))
        return task;

    QThread *own = thread(number);
    if (!own || !startThread(number)) {
        CWRN(QtWarningMsg,
             QStringLiteral("TcpInputPlugin2(%1): Not creating task, no thread found"), id);
        return nullptr;
    }

    CWRN(QtInfoMsg, QStringLiteral("TcpInputPlugin2(%1): Creating new TcpTask2"), id);
    if (existingTask(number) || threads.value(number) != own) // made or stopped meanwhile
        return existingTask(number);
    auto *task = new TcpTask2(nullptr);
    task->setNum(number);
    task->setCounters(tally.newCounters());
    {
        const WriteLocker locker(tasksLock);
        tasks.insert(number, task);
    }
    setUpTask(task);
    task->moveToThread(own);
    return task;
}

// False if the system refuses another thread; Qt has logged that. The thread object is deleted
// then.
bool WorkerPool::startThread(int number)
{
    QThread *thread = threads.value(number);
    if (!thread->isRunning())
        thread->start(QThread::InheritPriority);
    if (thread->isRunning())
        return true;
    delete threads.take(number);
    return false;
}

std::optional<TcpTask2::DiscardResult> WorkerPool::tryDiscard(int number, int length,
                                                              const subids::Values &subid)
{
    const ReadLocker locker(tasksLock);
    const TcpTask2 *task = tasks.value(number);
    return task ? std::optional(task->tryDiscard(length, subid)) : std::nullopt;
}

void WorkerPool::addTo(InputCounters &sum)
{
    tally.addCounts(sum);
    for (auto thread = threads.constBegin(); thread != threads.constEnd(); ++thread)
        tally.addTurn(sum, thread.key(), dynamic_cast<const WorkerThread &>(**thread));
}

void WorkerPool::retireTasks()
{
    const WriteLocker locker(tasksLock);
    for (TcpTask2 *task : std::as_const(tasks))
        task->deleteLater();
    tasks.clear();
}

void WorkerPool::retireThreads()
{
    retired.removeAll(nullptr);
    for (QThread *thread : std::as_const(threads)) {
        thread->deleteLater(); // joins: see ~WorkerThread
        retired.append(thread);
    }
    threads.clear();
}

void WorkerPool::finish()
{
    for (QThread *thread : std::exchange(threads, {}))
        retired.append(thread);
    for (const QPointer<QThread> &thread : std::as_const(retired)) {
        if (thread)
            thread->quit();
    }
    for (const QPointer<QThread> &thread : std::as_const(retired)) {
        if (thread)
            thread->wait();
    }
}
