// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

// What it costs a task to make the record of an offer and to hand it on.

#include "tcpinput/tcptask2.h"

#include <QtNetwork/QHostAddress>

#include <benchmark/benchmark.h>

namespace {

void record(benchmark::State &state)
{
    Connection offer;
    offer.setData(QByteArray(static_cast<qsizetype>(state.range(0)), 'x'));
    offer.setSenderHost(QHostAddress(QStringLiteral("127.0.0.1")));
    offer.setSenderPort(54130);
    offer.setLocalAddress(QHostAddress(QStringLiteral("127.0.0.1")));
    offer.setLocalPort(7446);
    const QString id = QStringLiteral("tcp2:127.0.0.1:7446-127.0.0.1:54130");

    TcpTask2 task(nullptr);
    shared_parsedData last;
    QObject::connect(&task, &TcpTask2::receivedData,
                     [&last](const shared_parsedData &data) { last = data; });
    for ([[maybe_unused]] auto turn : state)
        task.readyRead(offer, id);
    benchmark::DoNotOptimize(last);
}

} // namespace

BENCHMARK(record)->ArgName("bytes")->Arg(200)->Arg(64 << 10);

BENCHMARK_MAIN();
