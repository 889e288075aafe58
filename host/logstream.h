// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include "host/standardstream.h"

#include <QtCore/QByteArray>

#include <condition_variable>
#include <mutex>

namespace host {

/*!
    Log lines of all threads on their way to standard error. None of the threads waits for its
    reader.

    A line is written at once, if the stream takes it. Otherwise it goes into a backlog, which a
    thread of its own writes; that thread exists only meanwhile. When the backlog is full, lines are
    dropped and counted. A line tells the count, in the place of those that are missing.

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
    qint64 dropped = 0; // lines, behind the backlog
    quint64 writes = 0; // of the backlog
    bool hasWriter = false;
};

} // namespace host
