// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include <QtCore/QByteArray>
#include <QtCore/QByteArrayView>

#include <vector>

class WarmBlocks;

/*!
    A connection's unconsumed bytes. The buffer grows at the end, is cut at the front, and hands out
    copies of the whole that share its memory.

    Received bytes are copied once, whole blocks usually not at all. While a copy is with a host,
    new bytes go into other blocks, so that the copy stays as it is. Large blocks do not grow,
   either: others follow them. The next copy() joins all blocks. The cost of a cut does not depend
   on how much is left. The rest is copied only if it is less than half of its block; that also
   frees memory once a backlog is consumed. Bytes that are cut are never copied.

    Thread: one at a time; copies may be anywhere.
    Owner:  the client, as a member.
*/
class InputBuffer
{
public:
    InputBuffer() = default;
    ~InputBuffer() { clear(); }
    Q_DISABLE_COPY_MOVE(InputBuffer)

    // Where large blocks come from and go to. value: outlives this. Default: null, malloc() alone.
    void setBlocks(WarmBlocks *value) { blocks = value; }

    qsizetype size() const { return bytes.size() + freshSize; }

    // Of all its blocks, used or not.
    qsizetype capacity() const;

    // Adds room for size bytes at the end, which the caller fills. chop() gives back unused room.
    char *extend(qsizetype size);
    void chop(qsizetype size);

    void append(QByteArrayView received);
    // Usually without copying, if block is a filled emptyBlock().
    void appendBlock(QByteArray block);
    // Empty, with room for that many bytes. Uses what is set before the first read only.
    QByteArray emptyBlock(qsizetype size) const;

    // len <= 0 cuts nothing, a len beyond the size empties the buffer. Returns how much was cut.
    qsizetype cutFront(qsizetype len);

    void clear();

    // All of it, zero-terminated.
    QByteArray copy();

private:
    QByteArray &last() { return fresh.empty() ? bytes : fresh.back(); }
    bool isLastMine();
    bool hasRoom(qsizetype size);
    bool mayGrow();
    qsizetype roomFor(qsizetype size) const;
    char *addBlock(qsizetype size);
    void join();
    void cutFrontOfBytes(qsizetype cut);
    void copyRest(qsizetype from);
    QByteArray makeBlock(qsizetype size, qsizetype headroom) const;
    void giveBack(QByteArray block) const;

    WarmBlocks *blocks = nullptr;
    QByteArray bytes;
    std::vector<QByteArray> fresh; // follow bytes; none of them is empty
    qsizetype freshSize = 0; // of all of them
    // Of the latest copy, if it was large: its connection brings as much again. The fewer blocks,
    // the less is joined.
    qsizetype lately = 0;
};
