// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

// What a log line costs if its handler drops it. Several lines are written for each connection.

#include "plugin/cwrn.h"

#include <benchmark/benchmark.h>

namespace {

void drop(QtMsgType, const QMessageLogContext &, const QString &) {}

void logLine(benchmark::State &state)
{
    const QtMessageHandler previous = qInstallMessageHandler(drop);
    const QString id = QStringLiteral("tcp2:127.0.0.1:7446-127.0.0.1:54130");
    for ([[maybe_unused]] auto turn : state)
        CWRN(QtDebugMsg, QStringLiteral("TcpTask2: new connection %1"), id);
    qInstallMessageHandler(previous);
}

void logLineWithFourArguments(benchmark::State &state)
{
    const QtMessageHandler previous = qInstallMessageHandler(drop);
    const QString address = QStringLiteral("127.0.0.1");
    for ([[maybe_unused]] auto turn : state)
        CWRN(QtDebugMsg, QStringLiteral("TCP READ: %1:%2 (%3:%4)"), address, 7446, address, 54130);
    qInstallMessageHandler(previous);
}

} // namespace

BENCHMARK(logLine);
BENCHMARK(logLineWithFourArguments);

BENCHMARK_MAIN();
