// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

// What it costs a task to make the record of an offer and to hand it on.

#include "tcpinput/localsecond.h"
#include "tcpinput/recordmaker.h"
#include "tcpinput/tcptask2.h"

#include <benchmark/benchmark.h>

namespace {

void record(benchmark::State &state)
{
    const QByteArray offer(static_cast<qsizetype>(state.range(0)), 'x');
    const QHostAddress address(QStringLiteral("127.0.0.1"));
    const QString id = QStringLiteral("tcp2:127.0.0.1:7446-127.0.0.1:54130");
    RecordMaker maker(1, {address, address, 54130, 7446});
    LocalSecond localSecond;

    TcpTask2 task(nullptr);
    shared_parsedData last;
    QObject::connect(&task, &TcpTask2::receivedData,
                     [&last](const shared_parsedData &data) { last = data; });
    for ([[maybe_unused]] auto turn : state)
        Q_EMIT task.receivedData(maker.make(offer, id, localSecond.now()));
    benchmark::DoNotOptimize(last);
}

} // namespace

BENCHMARK(record)->ArgName("bytes")->Arg(200)->Arg(64 << 10);

BENCHMARK_MAIN();
