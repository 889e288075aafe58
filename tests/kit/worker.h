// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include "tcpinput/workers/workerthread.h"

#include <QtCore/QObject>
#include <QtCore/QSemaphore>

#include <memory>

/*!
    A running worker thread with an object in it that tests call into.

    Thread: the one that created it.
*/
class Worker
{
public:
    Worker()
    {
        context->moveToThread(thread.get());
        QObject::connect(thread.get(), &QThread::finished, context, &QObject::deleteLater);
        thread->start();
    }
    Q_DISABLE_COPY_MOVE(Worker)

    // Returns when the worker has run the function, after all events that were posted before.
    template<class Function>
    void run(Function function)
    {
        QMetaObject::invokeMethod(context, function, Qt::BlockingQueuedConnection);
    }
    template<class Function>
    void post(Function function)
    {
        QMetaObject::invokeMethod(context, function, Qt::QueuedConnection);
    }

    // Blocks the worker until release(). Returns when the worker is blocked.
    void block()
    {
        post([this] {
            blocked.release();
            released.acquire();
        });
        blocked.acquire();
    }
    void release() { released.release(); }

    void quitAndWait()
    {
        thread->quit();
        thread->wait();
    }

    const std::unique_ptr<WorkerThread> thread = WorkerThread::make();

private:
    QSemaphore blocked;
    QSemaphore released;
    QObject *const context = new QObject; // deleted with the thread's event loop
};
