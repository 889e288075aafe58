// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include "tcpinput/tally.h"
#include "tcpinput/tcptask2.h"
#include "tcpinput/workers/locks.h"

#include <QtCore/QList>
#include <QtCore/QMap>
#include <QtCore/QPointer>
#include <QtCore/QString>
#include <QtCore/QThread>

#include <functional>
#include <optional>

/*!
    The worker threads, each with one task, and the rotation over them. Threads and tasks are made
    on first use.

    A retired thread ends. Its number gets a new thread when it is used again.

    Thread: the plugin's; tryDiscard() from any.
    Owner:  the plugin, as a member, which calls finish() before the end of the pool.
    Locks:  one of its own, over the tasks. Never held while logging. The only signal emitted under
            it is that of the client that a discard is for.
*/
class WorkerPool
{
public:
    using ThreadSetup = std::function<void(QThread *)>;
    using TaskSetup = std::function<void(TcpTask2 *)>;

    // pluginId: for log lines; kept by reference. The set-ups connect a new thread or task before
    // it runs.
    WorkerPool(const QString &pluginId, ThreadSetup forThread, TaskSetup forTask);
    ~WorkerPool();
    Q_DISABLE_COPY_MOVE(WorkerPool)

    // How many workers take turns; more than 0. Default: 4.
    void setSize(int value) { size = value; }

    // Whose turn it is: 0 to size - 1, or above if the pool was larger before.
    int turn() const { return index; }
    void endTurn() { index = (index + 1) % size; }

    // The thread of that number; made on first use, not started. Null if descriptors have run out.
    QThread *thread(int number);
    // The task whose turn it is; made on first use, with its thread. Null if there is no thread.
    TcpTask2 *task();
    // Null if there is none.
    TcpTask2 *existingTask(int number) const { return allTasks().value(number); }
    const QMap<int, TcpTask2 *> &allTasks() const
    {
        tasksLock.assumeReadable();
        return tasks;
    }
    const QMap<int, QThread *> &allThreads() const { return threads; }

    // As TcpTask2::tryDiscard(); nothing if there is no such task.
    std::optional<TcpTask2::DiscardResult> tryDiscard(int number, int length,
                                                      const subids::Values &subid);

    // Adds what the workers have done, and how they are.
    void addTo(InputCounters &sum);

    // Retires all tasks. First waits for discard() calls of other threads that are inside a task.
    void retireTasks();
    // Retires all threads without waiting; each ends by itself.
    void retireThreads();
    // Ends all threads that were ever made, and waits for them. Call retireTasks() before.
    void finish();

private:
    bool startThread(int number);

    const QString &id;
    const ThreadSetup setUpThread;
    const TaskSetup setUpTask;
    int size = 4;
    int index = 0;
    mutable SharedMutex tasksLock;
    // Written in the plugin's thread only, which reads without the lock.
    QMap<int, TcpTask2 *> tasks GUARDED_BY(tasksLock);
    QMap<int, QThread *> threads; // WorkerThreads
    Tally tally;
    QList<QPointer<QThread>> retired; // threads that are not deleted yet
};
