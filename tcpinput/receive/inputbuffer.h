// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include <QtCore/QByteArray>
#include <QtCore/QByteArrayView>

/*!
    A connection's unconsumed bytes. The buffer grows at the end, is cut at the front, and hands out
    copies of the whole that share its memory.

    Received bytes are copied once, whole blocks usually not at all. While a copy is with a host,
    new bytes go into a second block, so that the copy stays as it is. The next copy() joins the two
    blocks, at the cost of what the host has left of the first. The cost of a cut does not depend on
    how much is left. The rest is copied only if it is less than half of its block; that also frees
    memory once a backlog is consumed. Bytes that are cut are never copied.

    Thread: one at a time; copies may be anywhere.
    Owner:  the client, as a member.
*/
class InputBuffer
{
public:
    qsizetype size() const { return bytes.size() + fresh.size(); }

    // Adds room for size bytes at the end, which the caller fills. chop() gives back unused room.
    char *extend(qsizetype size);
    void chop(qsizetype size) { last().chop(size); }

    void append(QByteArrayView received);
    // Usually without copying, if block is a filled emptyBlock().
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
    QByteArray fresh; // follows bytes; received while those were shared
};
