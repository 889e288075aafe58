// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include "host/web/connectionrow.h"
#include "host/web/history.h"
#include "host/web/snapshot.h"

#include <QtCore/QMutex>
#include <QtCore/QWaitCondition>

#include <chrono>
#include <functional>
#include <memory>

namespace host {

/*!
    What the host's thread has made known last, and some of what it made known in the last hour, for
    threads that read it. Readers never make the host's thread wait, and it copies the connections
    at most once in RowsInterval, however often they ask.

    Thread: any, as said at each function.
    Owner:  the caller.
    Locks:  one, held for the exchange of a pointer, and for a sample of the history.
*/
class Bulletin
{
public:
    using SharedSnapshot = std::shared_ptr<const Snapshot>;
    using SharedRows = std::shared_ptr<const ConnectionRows>;

    static constexpr std::chrono::milliseconds RowsInterval{1000};
    static constexpr std::chrono::milliseconds MostRowsWait{200};

    // For the host's thread. askForRows: has it call publish() with rows soon; called in threads
    // that read, and returns at once.
    explicit Bulletin(std::function<void()> askForRows) : ask(std::move(askForRows)) {}
    Q_DISABLE_COPY_MOVE(Bulletin)

    void publish(Snapshot snapshot);
    void publish(ConnectionRows rows);

    // Never null behind the first publish().
    SharedSnapshot snapshot() const;
    History::Samples history() const;
    // No older than RowsInterval if the host's thread answers within MostRowsWait; otherwise the
    // last ones, or none. While an answer is due, others do not wait. One thread at a time.
    SharedRows rows();

private:
    using Clock = std::chrono::steady_clock;

    const std::function<void()> ask;
    mutable QMutex guard;
    QWaitCondition answered;
    SharedSnapshot latest; // guarded
    History past; // guarded
    SharedRows latestRows = std::make_shared<const ConnectionRows>(); // guarded
    Clock::time_point rowsTaken; // guarded
    bool hasRows = false; // guarded; some were published
    bool isAsked = false; // guarded
};

} // namespace host
