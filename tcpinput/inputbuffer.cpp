// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "tcpinput/inputbuffer.h"

#include <algorithm>
#include <utility>

namespace {

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

} // namespace

void InputBuffer::append(QByteArray &&chunk)
{
    // A socket reads into blocks of 16 KiB: a record of a few bytes must not hold one.
    if (bytes.isEmpty() && usesHalfOf(chunk.size(), chunk))
        bytes = std::move(chunk);
    else
        bytes.append(chunk.constData(), chunk.size());
}

qsizetype InputBuffer::cutFront(qsizetype len)
{
    const qsizetype cut = std::clamp<qsizetype>(len, 0, bytes.size());
    const qsizetype rest = bytes.size() - cut;
    if (cut == 0)
        return 0;
    if (rest == 0)
        bytes = QByteArray();
    else if (!usesHalfOf(rest, bytes))
        bytes = QByteArray(bytes.constData() + cut, rest);
    else if (bytes.isDetached())
        bytes.remove(0, cut); // moves the beginning
    else
        bytes = sharedEnd(bytes, cut);
    return cut;
}
