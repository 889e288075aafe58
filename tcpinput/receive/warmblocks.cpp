// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "tcpinput/receive/warmblocks.h"

#include "tcpinput/receive/soleowner.h"

#include <QtCore/QTimerEvent>

#include <algorithm>
#include <iterator>
#include <utility>

namespace {

// A host that keeps its records has the latest ones: further ones are hardly free.
constexpr int MostTaken = 16;

// Rounded up by less than a quarter, so that blocks for similar sizes are alike.
qsizetype roundedUp(qsizetype capacity)
{
    qsizetype step = WarmBlocks::LeastBytes / 4;
    while (step * 8 <= capacity)
        step *= 2;
    return (capacity + step - 1) / step * step;
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
    latestTake = looks;
    if (!std::exchange(looking, true))
        timer.start(LookMs, this);
    int taken = 0;
    for (auto each = all.rbegin(); each != all.rend() && taken < MostTaken; ++each) {
        const qsizetype has = each->capacity;
        if (has < capacity || has / 3 * 2 > capacity)
            continue;
        if (!isSoleOwner(each->bytes)) {
            ++taken;
            continue;
        }
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
        size -= last->capacity;
    dropped.assign(std::make_move_iterator(all.begin()), std::make_move_iterator(last));
    all.erase(all.begin(), last);
    all.push_back({std::move(block), has, looks});
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
        size -= each->capacity;
    dropped.assign(std::make_move_iterator(all.begin()), std::make_move_iterator(unused));
    all.erase(all.begin(), unused);
    if (all.empty() && latestTake < looks) {
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
