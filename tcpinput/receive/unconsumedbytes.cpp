// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "tcpinput/receive/unconsumedbytes.h"

#include "eventloop/epolleventdispatcher.h"
#include "tcpinput/limits/heldbytes.h"
#include "tcpinput/receive/transport.h"

#include <algorithm>
#include <chrono>
#include <limits>
#include <utility>

namespace {

// A cut that is made ahead counts as made this much later: about as long as an idle machine takes
// to wake up the client's thread for it.
constexpr std::chrono::steady_clock::duration CutDelay = std::chrono::microseconds(150);

} // namespace

void UnconsumedBytes::setBlocks(WarmBlocks &value)
{
    const MutexLocker locker(mutex);
    buffer.setBlocks(&value);
}

QByteArray UnconsumedBytes::emptyBlock(qsizetype size) const
{
    const MutexLocker locker(mutex);
    return buffer.emptyBlock(size);
}

qsizetype UnconsumedBytes::size() const
{
    const MutexLocker locker(mutex);
    return buffer.size();
}

UnconsumedBytes::Snapshot UnconsumedBytes::copy()
{
    const MutexLocker locker(mutex);
    recentCut.reset(); // its bytes are not in this copy
    return {buffer.copy(), bytesCut};
}

UnconsumedBytes::Snapshot UnconsumedBytes::takeAll()
{
    const MutexLocker locker(mutex);
    Snapshot all{buffer.copy(), bytesCut};
    buffer.clear();
    consumed(all.data.size());
    return all;
}

qsizetype UnconsumedBytes::readFrom(Transport &transport, qsizetype count)
{
    const MutexLocker locker(mutex);
    qint64 came = 0;
    if (QByteArray block = transport.takeBlock(count); !block.isEmpty()) {
        came = block.size();
        buffer.appendBlock(std::move(block));
    } else {
        char *const room = buffer.extend(count);
        came = std::max<qint64>(transport.take(room, count), 0);
        buffer.chop(count - came);
    }
    counters->bytes.add(static_cast<quint64>(came));
    if (held && came > 0)
        held->received(came);
    return came > 0 ? buffer.size() : 0;
}

bool UnconsumedBytes::cutAhead(const Cut &asked, bool inClientsThread)
{
    const MutexLocker locker(mutex);
    if (isDone(asked)) // whatever other cuts are on their way
        return true;
    const qsizetype length = lengthOf(asked);
    const qsizetype left = buffer.size() - std::max<qsizetype>(length, 0);
    if (postedCuts > 0 || left < 0 || left > RemainderBytes || inClientsThread
        || (held && held->isPaused())) {
        ++postedCuts;
        return false;
    }
    cutFront(length);
    recentCut = Clock::steady();
    return true;
}

std::optional<qsizetype> UnconsumedBytes::cut(const Cut &asked)
{
    const MutexLocker locker(mutex);
    if (isDone(asked))
        return std::nullopt;
    cutFront(lengthOf(asked));
    recentCut.reset(); // it was made before this one
    return buffer.size();
}

void UnconsumedBytes::cutFront(qsizetype length)
{
    const qsizetype cut = buffer.cutFront(length);
    bytesCut += static_cast<quint64>(cut);
    if (cut > 0)
        consumed(cut);
}

void UnconsumedBytes::consumed(qsizetype bytes)
{
    counters->consumed.fetch_add(static_cast<quint64>(bytes), std::memory_order_relaxed);
    if (held)
        held->consumed(bytes);
}

void UnconsumedBytes::endPostedCut()
{
    const MutexLocker locker(mutex);
    --postedCuts;
}

// A cut that was posted would come later: the client's thread takes time to wake up, and first
// reads all that was there when its turn began.
qsizetype UnconsumedBytes::leftByRecentCut()
{
    const MutexLocker locker(mutex);
    const auto cut = std::exchange(recentCut, std::nullopt);
    const bool onItsWay = cut
            && (Clock::steady() - *cut <= CutDelay || *cut >= EpollEventDispatcher::turnBegan());
    return onItsWay ? buffer.size() : 0;
}

bool UnconsumedBytes::isDone(const Cut &asked) const
{
    const auto *position = std::get_if<Position>(&asked);
    return position && position->end <= bytesCut;
}

// Counted from the first unconsumed byte. The cut is not done yet.
qsizetype UnconsumedBytes::lengthOf(const Cut &asked) const
{
    if (const auto *length = std::get_if<Length>(&asked))
        return length->bytes;
    constexpr auto Longest = static_cast<quint64>(std::numeric_limits<qsizetype>::max());
    return static_cast<qsizetype>(std::min(std::get<Position>(asked).end - bytesCut, Longest));
}
