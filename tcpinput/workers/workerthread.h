// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include "eventloop/epolleventdispatcher.h"

#include <QtCore/QPointer>
#include <QtCore/QThread>

#include <memory>

/*!
    A thread with an event loop of our own. It can be destroyed at any time.

    Thread: its creator's.
    Owner:  the plugin.
*/
class WorkerThread : public QThread
{
    Q_OBJECT

public:
    // Null if the process has no descriptors left for an event loop. Qt would start the thread
    // anyway, and then abort the process.
    static std::unique_ptr<WorkerThread> make();

    // Whether make() would succeed now.
    static bool isAvailable();

    // Quits the event loop and waits: for the event in hand, for the deletion of the thread's task,
    // and until the kernel has ended the thread. ~QThread would abort the process if the thread
    // still ran.
    ~WorkerThread() override;

    // Of its event loop. From any thread.
    const EpollEventDispatcher::Pulse &pulse() const { return *loopPulse; }

protected:
    void run() override;

private:
    void waitForKernel() const;

    explicit WorkerThread(std::unique_ptr<EpollEventDispatcher> loop);

    const std::shared_ptr<const EpollEventDispatcher::Pulse> loopPulse;
    QPointer<QAbstractEventDispatcher> dispatcher; // deleted by the thread itself, if it ever ran
    int kernelId = 0; // written by the thread when it starts, read when wait() has returned
};
