// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "tcpinput/inputbuffer.h"

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

// A block of its own with room in front, so that prepending that much copies nothing else.
QByteArray blockWithHeadroom(QByteArrayView received, qsizetype headroom)
{
    QByteArray block(headroom + received.size(), Qt::Uninitialized);
    std::memcpy(block.data() + headroom, received.data(), static_cast<size_t>(received.size()));
    block.remove(0, headroom); // moves the beginning
    return block;
}

} // namespace

void InputBuffer::append(QByteArrayView received)
{
    if (received.isEmpty())
        return;
    if (!fresh.isEmpty())
        fresh.append(received);
    else if (bytes.isEmpty())
        bytes = received.toByteArray();
    else if (bytes.isDetached())
        bytes.append(received);
    else
        fresh = blockWithHeadroom(received, std::min(bytes.size(), MostHeadroom));
}

char *InputBuffer::extend(qsizetype size)
{
    const qsizetype before = last().size();
    last().resize(before + size);
    return last().data() + before;
}

void InputBuffer::chop(qsizetype size)
{
    last().chop(size);
}

QByteArray InputBuffer::copy()
{
    if (fresh.isEmpty())
        return bytes;
    if (bytes.isDetached() && bytes.size() > fresh.data_ptr().freeSpaceAtBegin())
        bytes.append(fresh);
    else
        bytes = std::move(fresh.prepend(bytes));
    fresh = QByteArray();
    return bytes;
}

qsizetype InputBuffer::cutFront(qsizetype len)
{
    const qsizetype cut = std::clamp<qsizetype>(len, 0, size());
    if (cut < bytes.size()) {
        cutFrontOfBytes(cut);
    } else {
        const qsizetype cutOfFresh = cut - bytes.size();
        bytes = std::exchange(fresh, {});
        cutFrontOfBytes(cutOfFresh);
    }
    return cut;
}

void InputBuffer::cutFrontOfBytes(qsizetype cut)
{
    const qsizetype rest = bytes.size() - cut;
    if (cut == 0)
        return;
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
