// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "tcpinput/limits/bufferbudget.h"

#include <algorithm>
#include <limits>

namespace {

constexpr qint64 RestsForOne = 8; // may one connection hold
constexpr qint64 LeastRestShare = 1024; // of the total: less is none, or many would read by bytes

} // namespace

qint64 BufferBudget::room(qint64 ofConnection) const
{
    if (limits.totalBuffer == 0)
        return std::numeric_limits<qint64>::max();
    const qint64 rest = limits.totalBuffer - held();
    if (rest <= limits.totalBuffer / LeastRestShare)
        return 0;
    // What it takes in also makes the rest smaller. Rounded up: a small rest is not none.
    const qint64 most = (RestsForOne * rest - ofConnection + RestsForOne) / (RestsForOne + 1);
    return std::clamp<qint64>(most, 0, std::max<qint64>(rest / 4, 1));
}
