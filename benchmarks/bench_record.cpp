// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

// What it costs a task to make the record of an offer and to hand it on.

#include "tcpinput/receive/localsecond.h"
#include "tcpinput/receive/recordmaker.h"
#include "tcpinput/tcptask2.h"

#include <benchmark/benchmark.h>

#include <malloc.h>
#include <vector>

namespace {

RecordMaker makerOfOneClient()
{
    const QHostAddress address(QStringLiteral("127.0.0.1"));
    return RecordMaker(1, {address, address, 54130, 7446});
}

const QString &idOfOneClient()
{
    static const QString id = QStringLiteral("tcp2:127.0.0.1:7446-127.0.0.1:54130");
    return id;
}

void record(benchmark::State &state)
{
    const QByteArray offer(static_cast<qsizetype>(state.range(0)), 'x');
    RecordMaker maker = makerOfOneClient();
    LocalSecond localSecond;

    TcpTask2 task(nullptr);
    shared_parsedData last;
    QObject::connect(&task, &TcpTask2::receivedData,
                     [&last](const shared_parsedData &data) { last = data; });
    for ([[maybe_unused]] auto turn : state)
        Q_EMIT task.receivedData(maker.make(offer, idOfOneClient(), localSecond.now()));
    benchmark::DoNotOptimize(last);
}

// How much memory a host needs for each record that it keeps. The bytes of the message do not
// count: the record shares them with the connection.
void keptRecord(benchmark::State &state)
{
    const QByteArray offer(200, 'x');
    const RecordMaker::Stamp stamp{1, 123456};
    RecordMaker maker = makerOfOneClient();
    LocalSecond localSecond;
    std::vector<shared_parsedData> records;
    records.reserve(static_cast<std::size_t>(state.max_iterations));
    const std::size_t before = mallinfo2().uordblks;
    for ([[maybe_unused]] auto turn : state)
        records.push_back(maker.make(offer, idOfOneClient(), localSecond.now(),
                                     state.range(0) == 0 ? nullptr : &stamp));
    state.counters["heapBytes"] = benchmark::Counter(
            static_cast<double>(mallinfo2().uordblks - before), benchmark::Counter::kAvgIterations);
}

} // namespace

BENCHMARK(record)->ArgName("bytes")->Arg(200)->Arg(64 << 10);
BENCHMARK(keptRecord)->ArgName("offsets")->Arg(0)->Arg(1)->Iterations(100000);

BENCHMARK_MAIN();
