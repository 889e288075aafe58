// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "tcpinput/receive/inputbuffer.h"

#include "tcpinput/receive/soleowner.h"
#include "tcpinput/receive/warmblocks.h"

#include <algorithm>
#include <cstring>
#include <numeric>
#include <utility>

namespace {

// Room in front of a block, where the beginning of its message can be prepended.
constexpr qsizetype MostHeadroom = 4096;
constexpr qsizetype MostRoomAhead = 128 * 1024; // for an eighth of it; see roomFor()

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

} // namespace

// A block with room in front: prepending up to headroom bytes does not copy the block.
QByteArray InputBuffer::makeBlock(qsizetype size, qsizetype headroom) const
{
    QByteArray block;
    if (blocks && headroom + size >= WarmBlocks::LeastBytes) {
        block = blocks->take(headroom + size);
        block.resize(headroom + size);
    } else {
        block = QByteArray(headroom + size, Qt::Uninitialized);
    }
    if (headroom > 0)
        block.remove(0, headroom); // moves the beginning
    return block;
}

void InputBuffer::giveBack(QByteArray block) const
{
    if (blocks && block.capacity() >= WarmBlocks::LeastBytes)
        blocks->giveBack(std::move(block));
}

qsizetype InputBuffer::capacity() const
{
    const auto add = [](qsizetype sum, const QByteArray &block) { return sum + block.capacity(); };
    return std::accumulate(fresh.begin(), fresh.end(), bytes.capacity(), add);
}

// A copy of the first block may be with a host.
bool InputBuffer::isLastMine()
{
    return !fresh.empty() || isSoleOwner(bytes);
}

bool InputBuffer::hasRoom(qsizetype size)
{
    return isLastMine() && last().data_ptr().freeSpaceAtEnd() >= size;
}

// A large block stays where it is.
bool InputBuffer::mayGrow()
{
    return isLastMine() && last().size() < WarmBlocks::LeastBytes;
}

// For a read of that size, and for more if the connection is a fast one. Not for much more: it may
// be the last one for long, and what lies unused counts nowhere.
qsizetype InputBuffer::roomFor(qsizetype size) const
{
    const qsizetype most = std::min(size, MostRoomAhead) * 8;
    return std::max(size, std::min(lately, most));
}

char *InputBuffer::extend(qsizetype size)
{
    if (this->size() == 0) {
        if (lately == 0 && size < WarmBlocks::LeastBytes) { // a message
            bytes = QByteArray(size, Qt::Uninitialized);
        } else {
            bytes = makeBlock(roomFor(size), 0);
            bytes.resize(size);
        }
        return bytes.data();
    }
    QByteArray &block = last();
    const qsizetype before = block.size();
    if (!hasRoom(size)) {
        if (!mayGrow())
            return addBlock(size);
        // By half. A doubled block would often be less than half full, and the first cut would copy
        // the rest to save memory.
        block.reserve(before + size + (before + size) / 2);
    }
    block.resize(before + size);
    freshSize += fresh.empty() ? 0 : size;
    return block.data() + before;
}

// Returns the place of size bytes in a new block.
char *InputBuffer::addBlock(qsizetype size)
{
    const qsizetype headroom = fresh.empty() ? std::min(bytes.size(), MostHeadroom) : 0;
    fresh.push_back(makeBlock(roomFor(size), headroom));
    fresh.back().resize(size);
    freshSize += size;
    return fresh.back().data();
}

void InputBuffer::chop(qsizetype size)
{
    last().chop(size);
    if (fresh.empty())
        return;
    freshSize -= size;
    if (fresh.back().isEmpty())
        fresh.pop_back();
}

void InputBuffer::append(QByteArrayView received)
{
    if (!received.isEmpty())
        std::memcpy(extend(received.size()), received.data(),
                    static_cast<std::size_t>(received.size()));
}

void InputBuffer::appendBlock(QByteArray block)
{
    if (size() == 0) {
        bytes = std::move(block);
    } else if (hasRoom(block.size()) || (mayGrow() && block.size() < WarmBlocks::LeastBytes)) {
        append(block);
        giveBack(std::move(block));
    } else {
        freshSize += block.size();
        fresh.push_back(std::move(block));
    }
}

// With headroom, like all blocks that may follow another one.
QByteArray InputBuffer::emptyBlock(qsizetype size) const
{
    QByteArray block = makeBlock(roomFor(size), MostHeadroom);
    block.resize(0);
    return block;
}

QByteArray InputBuffer::copy()
{
    if (!fresh.empty())
        join();
    if (!bytes.isEmpty() && !usesHalfOf(bytes.size(), bytes))
        copyRest(0);
    lately = blocks && bytes.size() >= WarmBlocks::LeastBytes ? bytes.size() : 0;
    return bytes;
}

void InputBuffer::join()
{
    QByteArray joined;
    if (QByteArray &second = fresh.front();
        fresh.size() == 1 && bytes.size() <= second.data_ptr().freeSpaceAtBegin()) {
        joined = std::move(second.prepend(bytes));
    } else {
        // A little more: a large backlog is not joined again for each read.
        joined = makeBlock(size() + size() / 8, 0);
        joined.resize(0);
        joined.append(bytes);
        for (const QByteArray &each : fresh)
            joined.append(each);
    }
    clear();
    bytes = std::move(joined);
}

qsizetype InputBuffer::cutFront(qsizetype len)
{
    const qsizetype cut = std::clamp<qsizetype>(len, 0, size());
    if (cut == 0)
        return 0;
    qsizetype left = cut;
    auto next = fresh.begin();
    while (left >= bytes.size() && next != fresh.end()) {
        left -= bytes.size();
        freshSize -= next->size();
        giveBack(std::exchange(bytes, std::exchange(*next++, {})));
    }
    fresh.erase(fresh.begin(), next);
    cutFrontOfBytes(left); // even by 0: frees a block that is mostly headroom
    return cut;
}

void InputBuffer::cutFrontOfBytes(qsizetype cut)
{
    const qsizetype rest = bytes.size() - cut;
    if (rest == 0 && bytes.capacity() < WarmBlocks::LeastBytes)
        bytes = QByteArray(); // a message
    else if (rest == 0)
        giveBack(std::exchange(bytes, {}));
    else if (!usesHalfOf(rest, bytes))
        copyRest(cut);
    else if (isSoleOwner(bytes))
        bytes.remove(0, cut); // moves the beginning
    else
        bytes = sharedEnd(bytes, cut);
}

void InputBuffer::copyRest(qsizetype from)
{
    const auto rest = QByteArrayView(bytes).sliced(from);
    QByteArray copied = makeBlock(rest.size(), 0);
    std::memcpy(copied.data(), rest.data(), static_cast<std::size_t>(rest.size()));
    giveBack(std::exchange(bytes, std::move(copied)));
}

void InputBuffer::clear()
{
    giveBack(std::exchange(bytes, {}));
    for (QByteArray &block : fresh)
        giveBack(std::move(block));
    fresh.clear();
    freshSize = 0;
}
