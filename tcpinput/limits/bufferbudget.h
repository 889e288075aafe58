// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include "tcpinput/limits/limits.h"

#include <QtCore/QString>

#include <atomic>
#include <memory>
#include <utility>

/*!
    The memory that the connections of a plugin may hold, and how much of it they do hold.

    Of the total: nobody picks the connections that have to stop when the total runs short. Each may
    hold at most eight times what is left of the total. While 1/8 is left, that is the whole total
    and stops nobody; when less and less is left, the largest connections stop first, and at last
    all. A small one goes on as long as there is room. The rule is that of A. K. Choudhury and E. L.
    Hahne, "Dynamic Queue Length Thresholds for Shared-Memory Packet Switches", IEEE/ACM
    Transactions on Networking 6(2), 1998.

    Thread: any.
    Owner:  shared by the plugin, its connections, and the records that the host still holds.
*/
class BufferBudget
{
public:
    // With others, for which the same counts.
    using Count = std::shared_ptr<std::atomic<qint64>>;

    explicit BufferBudget(const Limits &values) : limits(values) {}
    // value: not null. Call before the first connection. Default: its own.
    void setCount(Count value) { inUse = std::move(value); }
    Count count() const { return inUse; }

    const Limits limits;

    // bytes: negative if they are given back.
    void add(qint64 bytes) { inUse->fetch_add(bytes, std::memory_order_relaxed); }
    // Also counts what is reserved.
    qint64 held() const { return inUse->load(std::memory_order_relaxed); }

    // How many more bytes a connection may take in that holds so many; 0: none.
    qint64 room(qint64 ofConnection) const { return roomBeside(held(), ofConnection); }
    // As many, but no more than most, and adds them. Others may take in meanwhile: a room that was
    // only looked at may be gone before it is used.
    qint64 reserve(qint64 ofConnection, qint64 most);

    // A line of getStatus().
    QString status() const;

    // How many connections do not read at present.
    std::atomic<int> paused = 0;

private:
    qint64 roomBeside(qint64 heldByAll, qint64 ofConnection) const;

    Count inUse = std::make_shared<std::atomic<qint64>>(0); // set once
};
