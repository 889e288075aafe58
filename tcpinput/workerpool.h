// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

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
    The worker threads with one task each, made on first use, and whose turn it is.

    A thread whose tasks were retired ends, and its number gets a new one when it is used again.

    Thread: the plugin's; tryDiscard() from any.
    Owner:  the plugin, as a member. finish() comes before its end.
    Locks:  one of its own, over the tasks; never held while logging.
*/
class WorkerPool
{
public:
    using ThreadSetup = std::function<void(QThread *)>;
    using TaskSetup = std::function<void(TcpTask2 *)>;

    // pluginId: for log lines; not copied. The set-ups connect what was made, before it runs.
    WorkerPool(const QString &pluginId, ThreadSetup forThread, TaskSetup forTask);
    ~WorkerPool();
    Q_DISABLE_COPY_MOVE(WorkerPool)

    // How many connections are dealt in a round; more than 0. Default: 4.
    void setSize(int value) { size = value; }

    // Whose turn it is: 0 to size - 1, and above if the pool was larger before.
    int turn() const { return index; }
    void endTurn() { index = (index + 1) % size; }

    // Made on first use, not started; null without descriptors.
    QThread *thread(int number);
    // Of the number whose turn it is; made on first use with its thread; null without a thread.
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
                                                      const QMap<QString, QString> &subid);

    // No discard() of another thread is inside a task when it is retired.
    void retireTasks();
    // Each ends by itself.
    void retireThreads();
    // Waits for every thread that was ever made. Their tasks were retired before.
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
    QMap<int, QThread *> threads;
    QList<QPointer<QThread>> retired; // and not deleted yet
};
