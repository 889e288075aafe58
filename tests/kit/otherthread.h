// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include "tests/kit/hangguard.h"

#include <QtCore/QSemaphore>

#include <functional>
#include <memory>
#include <thread>

// Runs the call in another thread while the calling thread waits. True if the call returns. False
// after the hang guard: then the call waits for a lock that the calling thread holds.
inline bool returnsInAnotherThread(const std::function<void()> &call)
{
    const auto returned = std::make_shared<QSemaphore>();
    std::thread thread([call, returned] {
        call();
        returned->release();
    });
    const bool inTime = returned->tryAcquire(1, HangGuardMs);
    if (inTime)
        thread.join();
    else
        thread.detach(); // it still waits for the lock
    return inTime;
}
