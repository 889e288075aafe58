// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include "host/standardstream.h"

#include <QtCore/QByteArray>

#include <condition_variable>
#include <mutex>

namespace host {

/*!
    Writes the log lines of all threads to standard error. No thread waits for the reader of
    standard error.

    A line is written at once, if the stream takes it. Otherwise it goes into a backlog. A separate
    thread writes the backlog; it exists only while there is a backlog. When the backlog is full,
    lines are dropped and counted. In their place, a line tells their number.

    Thread: any.
    Owner:  nobody may delete it while a backlog is left: see finish().
    Locks:  mutex; held while writing, which does not wait.
*/
class LogStream
{
public:
    explicit LogStream(int descriptor) : stream(descriptor) {}
    Q_DISABLE_COPY_MOVE(LogStream)

    // text: whole lines.
    void write(const QByteArray &text);

    // Waits until the backlog is written, but not for a reader that stands still for a second. True
    // if nothing is left.
    bool finish();

private:
    void append(const QByteArray &text);
    bool writeBacklog();
    void tellDropped();
    void startWriter();
    void writeUntilDone();

    const StandardStream stream;
    std::mutex mutex;
    std::condition_variable progress;
    // Guarded by mutex.
    QByteArray backlog;
    qint64 dropped = 0; // lines that came after the backlog
    quint64 writes = 0; // times that a part of the backlog was written
    bool hasWriter = false;
};

} // namespace host
