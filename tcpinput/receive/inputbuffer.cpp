// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "tcpinput/receive/inputbuffer.h"

#include <algorithm>
#include <cstring>
#include <utility>

namespace {

// Room in front of a block, where the beginning of its message can be prepended.
constexpr qsizetype MostHeadroom = 4096;

// Capacity 0: the array does not own its memory.
bool usesHalfOf(qsizetype size, const QByteArray &block)
{
    return block.capacity() > 0 && size >= block.capacity() / 2;
}

// The bytes behind from, in the same memory. QByteArray::sliced() would copy; these members are
// public, though undocumented. The end does not move, so the terminating zero stays where it is.
QByteArray sharedEnd(QByteArray &bytes, qsizetype from)
{
    QByteArray::DataPointer &block = bytes.data_ptr();
    block.d_ptr()->ref(); // for the new pointer
    return QByteArray(
            QByteArray::DataPointer(block.d_ptr(), block.data() + from, bytes.size() - from));
}

// A block with room in front: prepending up to headroom bytes does not copy the block.
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
    // Grows by half. A doubled block would often be less than half full, and the first cut would
    // copy the rest to save memory.
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

// With headroom, like all blocks that may follow another one.
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
        cutFrontOfBytes(cutOfFresh); // even by 0: frees a block that is mostly headroom
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
