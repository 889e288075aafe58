// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "figures.h"

#include <QtCore/QCommandLineParser>
#include <QtCore/QCoreApplication>

#include <algorithm>
#include <cstdio>

namespace {

constexpr int Connections = 200;
constexpr int LargeTimes = 20;
constexpr double SoonMs = 50;

void printSecondMessages(int rounds, int devices)
{
    std::printf("Second message with the host within 150 ms, of %d devices a round\n", devices);
    for (const bool warm : {false, true}) {
        for (int round = 0; round < rounds; ++round) {
            for (const int gapUs : {0, 20, 50, 100}) {
                std::printf("  %s connection, gap %3d us:", warm ? "warm" : "new ", gapUs);
                for (Side *side : bothSides())
                    std::printf("  %s %d", side->name,
                                Figures::secondMessagesInTime(*side, {devices, gapUs, warm}));
                std::printf("\n");
                std::fflush(stdout);
            }
        }
    }
}

void printLargeMessages(int rounds)
{
    std::printf("Milliseconds until a large message on a warm connection is with the host, %d "
                "times: least, median, most (within %.0f ms)\n",
                LargeTimes, SoonMs);
    for (const bool grown : {true, false}) {
        for (int round = 0; round < rounds; ++round) {
            for (const qsizetype bytes : {qsizetype(400'000), qsizetype(1'000'000)}) {
                std::printf("  %7lld bytes, %s before:", static_cast<long long>(bytes),
                            grown ? "three of that size" : "a small message    ");
                for (Side *side : bothSides()) {
                    const QList<double> all =
                            Figures::largeMessages(*side, {bytes, LargeTimes, grown});
                    const auto late = std::upper_bound(all.begin(), all.end(), SoonMs);
                    std::printf("  %s %.1f %.1f %.1f (%lld)", side->name, all.first(),
                                all[all.size() / 2], all.last(),
                                static_cast<long long>(late - all.begin()));
                }
                std::printf("\n");
                std::fflush(stdout);
            }
        }
    }
}

void printLastRecords(int rounds)
{
    std::printf("Last records with the host before their closing line, of %d\n", Connections);
    for (int round = 0; round < rounds; ++round) {
        for (const bool queued : {true, false}) {
            std::printf("  host's slot %s:", queued ? "queued" : "direct");
            for (Side *side : bothSides())
                std::printf("  %s %d", side->name,
                            Figures::recordsBeforeClosingLine(*side, Connections, queued));
            std::printf("\n");
            std::fflush(stdout);
        }
    }
}

} // namespace

/*!
    Prints side by side what a host notices of the plain plugin and of the library. They take turns,
    round by round. Compare only figures of one run.
*/
int main(int argc, char **argv)
{
    const QCoreApplication application(argc, argv);
    QCommandLineParser parser;
    const QCommandLineOption rounds(QStringLiteral("rounds"), QStringLiteral("of each (3)."),
                                    QStringLiteral("count"), QStringLiteral("3"));
    const QCommandLineOption devices(QStringLiteral("devices"),
                                     QStringLiteral("that send two messages each (300)."),
                                     QStringLiteral("count"), QStringLiteral("300"));
    const QCommandLineOption only(QStringLiteral("only"),
                                  QStringLiteral("second, large or last (all)."),
                                  QStringLiteral("part"));
    parser.addOptions({rounds, devices, only});
    parser.addHelpOption();
    parser.process(application);

    const int count = qMax(1, parser.value(rounds).toInt());
    const auto wanted = [&](const char *part) {
        return !parser.isSet(only) || parser.value(only) == QLatin1String(part);
    };
    if (wanted("second"))
        printSecondMessages(count, qMax(1, parser.value(devices).toInt()));
    if (wanted("large"))
        printLargeMessages(count);
    if (wanted("last"))
        printLastRecords(count);
}
