// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include <QtCore/QByteArray>
#include <QtCore/QByteArrayView>

/*!
    A connection's unconsumed bytes: grows at the end, is cut from the front, and hands out copies
    of the whole that share its memory.

    Bytes that come in are copied once, in blocks mostly not at all. What comes in while a copy is
   with a host goes into a block of its own, so the copy stays as it is; the two blocks become one
   when the next copy is asked for, at the cost of what the host has left of the first. What a cut
   costs does not depend on how much is left: the rest is copied only when it is less than half of
   the memory that it lies in, which also gives memory back once a backlog is consumed. Bytes that
   are cut away are never copied.

    Thread: one at a time; copies may be anywhere.
    Owner:  the client, as a member.
*/
class InputBuffer
{
public:
    qsizetype size() const { return bytes.size() + fresh.size(); }

    // Room for that many bytes more at the end, to be filled by the caller. chop() gives back what
    // is left of it.
    char *extend(qsizetype size);
    void chop(qsizetype size) { last().chop(size); }

    void append(QByteArrayView received);
    // Without copying it, mostly, if the block is an emptyBlock() that was filled.
    void appendBlock(QByteArray block);
    // Empty, with room for that many bytes.
    static QByteArray emptyBlock(qsizetype size);

    // len <= 0 cuts nothing, a len beyond the size empties the buffer. Returns how much was cut.
    qsizetype cutFront(qsizetype len);

    void clear();

    // All of it, zero-terminated.
    QByteArray copy();

private:
    QByteArray &last() { return fresh.isEmpty() ? bytes : fresh; }
    void cutFrontOfBytes(qsizetype cut);

    QByteArray bytes;
    QByteArray fresh; // behind bytes: what came in while those were shared
};
