// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "tcpinput/workers/workerthread.h"

#include <chrono>
#include <thread>

#include <csignal>
#include <unistd.h>

namespace {

using namespace std::chrono_literals;

constexpr auto KernelPollInterval = 50us;
constexpr auto LongestKernelWait = 1s; // only a machine that has stalled takes longer

} // namespace

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

WorkerThread::WorkerThread(std::unique_ptr<EpollEventDispatcher> loop)
    : loopPulse(loop->pulse()),
      dispatcher(loop.get())
{
    setEventDispatcher(loop.release());
}

WorkerThread::~WorkerThread()
{
    quit();
    wait();
    waitForKernel();
    delete dispatcher; // null once the thread has run: it deletes its dispatcher
}

void WorkerThread::run()
{
    kernelId = ::gettid();
    QThread::run();
}

// QThread::wait() returns before thread-local destructors have run. Qt detaches its threads, so
// nobody can join them: ask the kernel instead.
void WorkerThread::waitForKernel() const
{
    const auto end = std::chrono::steady_clock::now() + LongestKernelWait;
    while (kernelId != 0 && ::tgkill(::getpid(), kernelId, 0) == 0
           && std::chrono::steady_clock::now() < end)
        std::this_thread::sleep_for(KernelPollInterval);
}
