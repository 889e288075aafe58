// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "tcpinput/workerthread.h"

#include "eventloop/epolleventdispatcher.h"

std::unique_ptr<WorkerThread> WorkerThread::make()
{
    auto dispatcher = EpollEventDispatcher::create();
    if (!dispatcher)
        return nullptr;
    return std::unique_ptr<WorkerThread>(new WorkerThread(std::move(dispatcher)));
}

bool WorkerThread::isAvailable()
{
    return EpollEventDispatcher::create() != nullptr;
}

WorkerThread::WorkerThread(std::unique_ptr<QAbstractEventDispatcher> loop) : dispatcher(loop.get())
{
    setEventDispatcher(loop.release());
}

WorkerThread::~WorkerThread()
{
    quit();
    wait();
    delete dispatcher; // null, unless the thread was never started
}
