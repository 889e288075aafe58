// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "tcpinput/limits/bufferbudget.h"

#include <algorithm>
#include <limits>

namespace {

constexpr qint64 RestsForOne = 8; // may one connection hold
constexpr qint64 LeastRestShare = 1024; // of the total: less is none, or many would read by bytes

} // namespace

qint64 BufferBudget::reserve(qint64 ofConnection, qint64 most)
{
    qint64 now = held();
    qint64 bytes = 0;
    do {
        bytes = std::clamp<qint64>(most, 0, roomBeside(now, ofConnection));
    } while (!inUse->compare_exchange_weak(now, now + bytes, std::memory_order_relaxed));
    return bytes;
}

QString BufferBudget::status() const
{
    return QStringLiteral("Limits: %1 bytes held, %2 connections paused\r\n")
            .arg(held())
            .arg(paused.load());
}

qint64 BufferBudget::roomBeside(qint64 heldByAll, qint64 ofConnection) const
{
    if (limits.totalBuffer == 0)
        return std::numeric_limits<qint64>::max();
    const qint64 rest = limits.totalBuffer - heldByAll;
    if (rest <= limits.totalBuffer / LeastRestShare)
        return 0;
    // What it takes in also makes the rest smaller. Rounded up: a small rest is not none.
    const qint64 most = (RestsForOne * rest - ofConnection + RestsForOne) / (RestsForOne + 1);
    return std::clamp<qint64>(most, 0, std::max<qint64>(rest / 4, 1)); // others want some, too
}
