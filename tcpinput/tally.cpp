// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "tcpinput/tally.h"

#include "tcpinput/receive/endreason.h"

#include <algorithm>

namespace {

void add(const WorkerCounters &from, WorkerCounters &to)
{
    // What is taken away from others first: their difference is not negative.
    for (std::size_t i = 0; i < to.ended.size(); ++i)
        to.ended[i].add(from.ended[i].read());
    to.missed.add(from.missed.read());
    to.adopted.add(from.adopted.read());
    to.consumed += from.consumed.load(std::memory_order_relaxed);
    to.bytes.add(from.bytes.read());
    to.reads.add(from.reads.read());
    to.offers.add(from.offers.read());
}

// The workers go on while they are read.
quint64 difference(quint64 all, quint64 part)
{
    return all > part ? all - part : 0;
}

} // namespace

std::shared_ptr<WorkerCounters> Tally::newCounters()
{
    forgetGone();
    return workers.emplace_back(std::make_shared<WorkerCounters>());
}

void Tally::forgetGone()
{
    const auto firstGone = std::partition(workers.begin(), workers.end(), [](const auto &counters) {
        return !counters->isOver.load(std::memory_order_acquire);
    });
    std::for_each(firstGone, workers.end(), [this](const auto &counters) { add(*counters, gone); });
    workers.erase(firstGone, workers.end());
}

void Tally::addCounts(InputCounters &sum)
{
    forgetGone();
    WorkerCounters all;
    add(gone, all);
    for (const auto &counters : workers)
        add(*counters, all);
    const auto ended = [&all](EndReason reason) {
        return all.ended[static_cast<std::size_t>(reason)].read();
    };
    sum.closedByPeer += ended(EndReason::Peer);
    sum.closedByReset += ended(EndReason::Reset);
    sum.closedIdle += ended(EndReason::Idle);
    sum.closedByTls += ended(EndReason::Tls);
    sum.closedByLimit += ended(EndReason::Limit);
    sum.closedByStop += ended(EndReason::Stop);
    quint64 endedInAll = all.missed.read();
    for (const auto &count : all.ended)
        endedInAll += count.read();
    sum.open += difference(all.adopted.read(), endedInAll);
    sum.bytes += all.bytes.read();
    sum.reads += all.reads.read();
    sum.offers += all.offers.read();
    sum.buffered += difference(all.bytes.read(), all.consumed);
}

void Tally::addTurn(InputCounters &sum, int number, const WorkerThread &thread)
{
    const EpollEventDispatcher::Pulse &pulse = thread.pulse();
    const quint64 turn = pulse.turns.load(std::memory_order_relaxed);
    Seen &last = seen[number];
    if (pulse.waits.load(std::memory_order_relaxed) || !last.since.isValid() || turn != last.turn) {
        last.turn = turn;
        last.since.start();
    }
    sum.workers.append({number, turn, last.since.elapsed()});
}
