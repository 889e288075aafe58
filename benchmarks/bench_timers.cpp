// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

// What restarting a timer costs while others of the same thread run. This cost is the reason why an
// offer does not restart its client's idle time-out, see IdleTimer.

#include "benchmarks/eventthread.h"

#include <QtCore/QTimer>

#include <benchmark/benchmark.h>

#include <vector>

namespace {

constexpr int IdleTimeoutMs = 60000;

void timerRestart(benchmark::State &state)
{
    const auto kind = static_cast<DispatcherKind>(state.range(0));
    state.SetLabel(dispatcherName(kind));
    runInEventThread(kind, [&state] {
        const auto count = static_cast<std::size_t>(state.range(1));
        std::vector<std::unique_ptr<QTimer>> timers;
        for (std::size_t i = 0; i < count; ++i) {
            timers.push_back(std::make_unique<QTimer>());
            timers.back()->start(IdleTimeoutMs);
        }
        std::size_t next = 0;
        for ([[maybe_unused]] auto turn : state) {
            timers[next]->start(IdleTimeoutMs);
            next = (next + 7919) % count; // no order that a list could profit from
        }
    });
}

} // namespace

BENCHMARK(timerRestart)
        ->ArgNames({"dispatcher", "timers"})
        ->ArgsProduct({{Ours, Qts}, {10, 100, 1000, 10000}});

BENCHMARK_MAIN();
