// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include <QtCore/QByteArray>
#include <QtCore/QByteArrayView>

namespace host {

/*!
    Standard output or standard error. Its reader may be slow or stand still: write() does not wait.

    Other programs may share the stream, so its flags stay as they are. Instead, each write first
    asks whether the stream is writable. Pipes and sockets get so little at once that they take it
    without waiting. A terminal does not say how much it takes: it is opened once more, with flags
   of its own.

    Thread: one at a time; waitUntilWritable() any.
*/
class StandardStream
{
public:
    // descriptor: stays the caller's, open for as long as the object lives.
    explicit StandardStream(int descriptor);
    ~StandardStream();
    Q_DISABLE_COPY_MOVE(StandardStream)

    // To be watched. That of a terminal is the object's own.
    int descriptor() const { return fd; }

    // Returns how many bytes at the front were written. 0: it takes nothing now. -1: failed, with
    // errno set.
    qsizetype write(QByteArrayView bytes) const;

    // timeoutMs: -1 waits without end. False if the time is over. Failed streams count as writable.
    bool waitUntilWritable(int timeoutMs) const;

private:
    const int terminal; // owned; -1: none
    const int fd;
    const bool mayWait; // false: a file
};

} // namespace host
