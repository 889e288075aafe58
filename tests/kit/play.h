// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include "tests/kit/hangguard.h"

#include <QtCore/QEventLoop>
#include <QtCore/QThread>
#include <QtCore/QTimer>

#include <functional>
#include <memory>

// Runs a blocking function in a new thread, and this thread's event loop meanwhile. False if the
// hang guard was reached.
inline bool play(const std::function<void()> &function)
{
    const std::unique_ptr<QThread> thread(QThread::create(function));
    QEventLoop loop;
    QObject::connect(thread.get(), &QThread::finished, &loop, &QEventLoop::quit);
    QTimer::singleShot(LoadHangGuardMs, &loop, [&loop] { loop.exit(1); });
    thread->start();
    const bool finished = loop.exec() == 0;
    thread->wait();
    return finished;
}
