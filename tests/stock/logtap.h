// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include "tests/kit/loglines.h"

#include <QtCore/QMutex>
#include <QtCore/QString>
#include <QtCore/QThread>

#include <atomic>
#include <chrono>
#include <functional>
#include <thread>
#include <utility>

using Clock = std::chrono::steady_clock;

// The place of an event in the order of all events of the process, across threads.
inline qint64 nextInOrder()
{
    static std::atomic<qint64> counter{0};
    return counter.fetch_add(1);
}

//! One log line, and when and where it was written.
struct TappedLine
{
    qint64 order = 0;
    Clock::time_point at;
    Qt::HANDLE thread = nullptr;
    QString text; // as logLine() has it
};

/*!
    Takes Qt's message output while it lives, and hands each line to a receiver. Only one tap may
    live at a time. It can take as long for a line as a log on a slow disk: this shows which code
    does not wait for the line.

    Thread: the receiver is called in whatever thread writes, under the mutex: one line at a time.
    Locks:  mutex.
*/
class LogTap
{
public:
    using Receiver = std::function<void(const TappedLine &)>;

    explicit LogTap(Receiver to, std::chrono::microseconds slowness = {})
        : previous(qInstallMessageHandler(&LogTap::handle))
    {
        const QMutexLocker locker(&mutex);
        receiver = std::move(to);
        delay = slowness;
    }
    // How long the calling thread has waited while others wrote a line.
    static Clock::duration waitedForOthers() { return waited; }

    ~LogTap()
    {
        qInstallMessageHandler(previous);
        const QMutexLocker locker(&mutex);
        receiver = {};
    }
    Q_DISABLE_COPY_MOVE(LogTap)

private:
    static void handle(QtMsgType level, const QMessageLogContext &, const QString &text)
    {
        if (level == QtFatalMsg)
            fprintf(stderr, "%s\n", qPrintable(text));
        TappedLine line;
        line.thread = QThread::currentThreadId();
        line.text = logLine({level, text, false});
        if (delay.load() > std::chrono::microseconds::zero())
            std::this_thread::sleep_for(delay.load());
        const auto asked = Clock::now();
        const QMutexLocker locker(&mutex);
        line.order = nextInOrder();
        line.at = Clock::now();
        waited += line.at - asked;
        if (receiver)
            receiver(line);
    }

    const QtMessageHandler previous;

    static inline thread_local Clock::duration waited{};
    static inline QMutex mutex;
    static inline Receiver receiver; // guarded by mutex
    static inline std::atomic<std::chrono::microseconds> delay{};
};
