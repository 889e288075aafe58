// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include <QtCore/QByteArray>

/*!
    A connection's unconsumed bytes: grows at the end, is cut from the front, and hands out copies
   of the whole that share its memory.

    What a cut costs does not depend on how much is left: the rest is copied only when it is less
    than half of the memory that it lies in, which also gives memory back once a backlog is
   consumed. Bytes that are cut away are never copied.

    Thread: one at a time; copies may be anywhere.
    Owner:  the client, as a member.
*/
class InputBuffer
{
public:
    qsizetype size() const { return bytes.size(); }

    // Takes over the memory of chunk if that is well used and the buffer is empty.
    void append(QByteArray &&chunk);

    // len <= 0 cuts nothing, a len beyond the size empties the buffer. Returns how much was cut.
    qsizetype cutFront(qsizetype len);

    void clear() { bytes = QByteArray(); }

    // All of it, zero-terminated, in constant time.
    QByteArray copy() const { return bytes; }

private:
    QByteArray bytes;
};
