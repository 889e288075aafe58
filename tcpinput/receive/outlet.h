// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include "tcpinput/receive/endreason.h"
#include "tcpinput/workers/workercounters.h"

#include <QtCore/QByteArray>

#include <functional>
#include <utility>

/*!
    Hands a client's offers and its end to whoever takes them: the task.

    Thread: the client's.
    Owner:  the client, as a member.
*/
class Outlet
{
public:
    // data: all unconsumed bytes.
    using Taker = std::function<void(const QByteArray &data)>;
    // position: behind the connection's last byte.
    using EndTaker = std::function<void(EndReason reason, quint64 position)>;

    // Default: empty, nobody is called.
    void offerTo(Taker value) { taker = std::move(value); }
    void tellEndTo(EndTaker value) { endTaker = std::move(value); }
    // value: outlives this. Default: nobody reads it.
    void setCounters(WorkerCounters &value) { counters = &value; }

    // What follows, up to the next call, belongs to an offer from that position on.
    void begin(quint64 position) { offeredPosition = position; }
    quint64 position() const { return offeredPosition; }

    void offer(const QByteArray &data)
    {
        if (!taker)
            return;
        offered = true;
        counters->offers.add(1);
        taker(data);
    }
    bool hasOffered() const { return offered; }

    // Once, behind the last offer.
    void tellEnd(EndReason reason, quint64 position)
    {
        if (endTaker)
            endTaker(reason, position);
    }

private:
    Taker taker;
    EndTaker endTaker;
    WorkerCounters *counters = &WorkerCounters::unread();
    quint64 offeredPosition = 0;
    bool offered = false;
};
