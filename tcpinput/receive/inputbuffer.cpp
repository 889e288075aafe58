// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "tcpinput/receive/inputbuffer.h"

#include <algorithm>
#include <cstring>
#include <utility>

namespace {

// Of a block, for the beginning of a message that has come before.
constexpr qsizetype MostHeadroom = 4096;

// Capacity 0: memory that is not the array's own.
bool usesHalfOf(qsizetype size, const QByteArray &block)
{
    return block.capacity() > 0 && size >= block.capacity() / 2;
}

// The end of bytes, in the same memory. QByteArray::sliced() copies; these two members are public,
// though undocumented. The terminating zero stays where it is, since the end does.
QByteArray sharedEnd(QByteArray &bytes, qsizetype from)
{
    QByteArray::DataPointer &block = bytes.data_ptr();
    block.d_ptr()->ref(); // the new pointer takes it over
    return QByteArray(
            QByteArray::DataPointer(block.d_ptr(), block.data() + from, bytes.size() - from));
}

// A block with room in front, so that prepending that much copies nothing else.
QByteArray blockWithHeadroom(qsizetype size, qsizetype headroom)
{
    QByteArray block(headroom + size, Qt::Uninitialized);
    block.remove(0, headroom); // moves the beginning
    return block;
}

} // namespace

char *InputBuffer::extend(qsizetype size)
{
    if (this->size() == 0) {
        bytes = QByteArray(size, Qt::Uninitialized);
        return bytes.data();
    }
    if (fresh.isEmpty() && !bytes.isDetached()) {
        fresh = blockWithHeadroom(size, std::min(bytes.size(), MostHeadroom));
        return fresh.data();
    }
    QByteArray &block = last();
    const qsizetype before = block.size();
    // By half: doubled, it would be little used, and the first cut would copy it to save memory.
    if (const qsizetype grown = before + size; grown > block.capacity())
        block.reserve(grown + grown / 2);
    block.resize(before + size);
    return block.data() + before;
}

void InputBuffer::append(QByteArrayView received)
{
    if (!received.isEmpty())
        std::memcpy(extend(received.size()), received.data(),
                    static_cast<std::size_t>(received.size()));
}

void InputBuffer::appendBlock(QByteArray block)
{
    if (this->size() == 0)
        bytes = std::move(block);
    else if (fresh.isEmpty() && !bytes.isDetached())
        fresh = std::move(block);
    else
        append(block);
}

// With headroom, like all blocks that may come to lie behind another one.
QByteArray InputBuffer::emptyBlock(qsizetype size)
{
    QByteArray block = blockWithHeadroom(size, MostHeadroom);
    block.resize(0);
    return block;
}

QByteArray InputBuffer::copy()
{
    if (fresh.isEmpty())
        return bytes;
    if (bytes.size() <= fresh.data_ptr().freeSpaceAtBegin()) {
        bytes = std::move(fresh.prepend(bytes));
    } else {
        QByteArray joined;
        joined.reserve(size()); // and no more: see extend()
        joined.append(bytes).append(fresh);
        bytes = std::move(joined);
    }
    fresh = QByteArray();
    return bytes;
}

qsizetype InputBuffer::cutFront(qsizetype len)
{
    const qsizetype cut = std::clamp<qsizetype>(len, 0, size());
    if (cut == 0)
        return 0;
    if (cut < bytes.size()) {
        cutFrontOfBytes(cut);
    } else {
        const qsizetype cutOfFresh = cut - bytes.size();
        bytes = std::exchange(fresh, {});
        cutFrontOfBytes(cutOfFresh); // also if that is nothing: much of the block may be headroom
    }
    return cut;
}

void InputBuffer::cutFrontOfBytes(qsizetype cut)
{
    const qsizetype rest = bytes.size() - cut;
    if (rest == 0)
        bytes = QByteArray();
    else if (!usesHalfOf(rest, bytes))
        bytes = QByteArray(bytes.constData() + cut, rest);
    else if (bytes.isDetached())
        bytes.remove(0, cut); // moves the beginning
    else
        bytes = sharedEnd(bytes, cut);
}

void InputBuffer::clear()
{
    bytes = QByteArray();
    fresh = QByteArray();
}
