// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "tcpinput/receive/warmblocks.h"

#include <QtCore/QTimerEvent>

#include <algorithm>
#include <iterator>
#include <utility>

namespace {

// Rounded up by less than a quarter, so that blocks for similar sizes are alike.
qsizetype roundedUp(qsizetype capacity)
{
    qsizetype step = WarmBlocks::LeastBytes / 4;
    while (step * 8 <= capacity)
        step *= 2;
    return (capacity + step - 1) / step * step;
}

// The others have done all that they do with it.
bool isNobodyElses(QByteArray &block)
{
    if (!block.isDetached())
        return false;
    // isDetached() orders nothing. These two do, with the last other's giving up of the block.
    block.data_ptr()->ref();
    block.data_ptr()->deref();
    return true;
}

// The same memory from its start, without its bytes.
QByteArray emptied(QByteArray block)
{
    QByteArray::DataPointer &old = block.data_ptr();
    old->ref(); // for the new pointer
    QByteArray whole(QByteArray::DataPointer(old.d_ptr(), old.data() - old.freeSpaceAtBegin(), 0));
    block = QByteArray();
    whole.resize(0); // terminates it
    return whole;
}

} // namespace

QByteArray WarmBlocks::take(qsizetype capacity)
{
    const MutexLocker locker(mutex);
    taken = looks;
    if (!std::exchange(looking, true))
        timer.start(LookMs, this);
    for (auto each = all.rbegin(); each != all.rend(); ++each) {
        const qsizetype has = each->bytes.capacity();
        if (has < capacity || has / 2 > capacity || !isNobodyElses(each->bytes))
            continue;
        QByteArray block = emptied(std::move(each->bytes));
        size -= has;
        all.erase(std::next(each).base());
        return block;
    }
    QByteArray block;
    block.reserve(roundedUp(capacity));
    return block;
}

void WarmBlocks::giveBack(QByteArray block)
{
    std::vector<Block> dropped; // freed without the lock
    const MutexLocker locker(mutex);
    const qsizetype has = block.capacity(); // 0: it does not own its memory
    if (!looking || has < LeastBytes || has > MostBytes)
        return;
    auto last = all.begin();
    for (size += has; size > MostBytes; ++last)
        size -= last->bytes.capacity();
    dropped.assign(std::make_move_iterator(all.begin()), std::make_move_iterator(last));
    all.erase(all.begin(), last);
    all.push_back({std::move(block), looks});
}

void WarmBlocks::look()
{
    std::vector<Block> dropped;
    const MutexLocker locker(mutex);
    const auto unused =
            std::partition_point(all.begin(), all.end(), [latest = looks](const Block &each) {
                return each.given < latest;
            });
    for (auto each = all.begin(); each != unused; ++each)
        size -= each->bytes.capacity();
    dropped.assign(std::make_move_iterator(all.begin()), std::make_move_iterator(unused));
    all.erase(all.begin(), unused);
    if (all.empty() && taken < looks) {
        looking = false;
        timer.stop();
    }
    ++looks;
}

qsizetype WarmBlocks::bytes() const
{
    const MutexLocker locker(mutex);
    return size;
}

void WarmBlocks::timerEvent(QTimerEvent *event)
{
    if (event->timerId() == timer.timerId())
        look();
    else
        QObject::timerEvent(event);
}
