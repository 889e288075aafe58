// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include <QtCore/QByteArrayView>

namespace host {

/*!
    Standard output or standard error. Its reader may be slow, or stand still: writing does not
    wait.

    Other programs may share the stream, so its flags stay as they are. It is asked before each
    write instead, and pipes, sockets and terminals get so little at once that they take it without
    waiting.

    Thread: one at a time; waitUntilWritable() any.
*/
class StandardStream
{
public:
    // descriptor: stays the caller's, open for as long as the object lives.
    explicit StandardStream(int descriptor);

    // Returns how many bytes at the front were written. 0: it takes nothing now. -1: failed, with
    // errno set.
    qsizetype write(QByteArrayView bytes) const;

    // False: not within that time. -1: waits without end. Failed streams count as writable.
    bool waitUntilWritable(int timeoutMs) const;

private:
    const int fd;
    const bool mayWait; // a file does not
};

} // namespace host
