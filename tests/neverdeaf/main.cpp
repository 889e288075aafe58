// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "cases.h"

#include <QtCore/QCoreApplication>

#include <cstdio>

namespace {

constexpr double LongestAfterMs = 2000;
constexpr double SilentFactor = 2;

QByteArray milliseconds(double value)
{
    if (value < 0)
        return "never";
    return value > 0 ? QByteArray::number(value, 'f', 1) : "-";
}

void print(const Outcome &outcome)
{
    std::printf("| %s | %s | %s | %s | %s | %lld | %lld | %lld |\n", qPrintable(outcome.cause),
                qPrintable(outcome.transport), milliseconds(outcome.before).constData(),
                milliseconds(outcome.during).constData(), milliseconds(outcome.after).constData(),
                static_cast<long long>(outcome.connections), static_cast<long long>(outcome.lines),
                static_cast<long long>(outcome.allowedLines));
    std::fflush(stdout);
}

bool isInTime(const Outcome &outcome)
{
    return outcome.isServed() && outcome.after <= LongestAfterMs;
}

bool isRight(const Outcome &outcome)
{
    return outcome.isServed() && outcome.lines <= outcome.allowedLines;
}

} // namespace

/*!
    Measures the time until a good device is served: before, while and after other devices do their
    worst. Writes a table to standard output. Exits with 1 if a device took too long, with 2 if a
    device was never served or if there were too many log lines.
*/
int main(int argc, char **argv)
{
    const QCoreApplication application(argc, argv);
    std::printf(
            "| Cause | Transport | before, ms | during, ms | after, ms | Connections | Log lines "
            "| Allowed |\n|---|---|---|---|---|---|---|---|\n");
    bool inTime = true;
    bool right = true;
    const auto play = [&](const Outcome &outcome) {
        print(outcome);
        inTime = isInTime(outcome) && inTime;
        right = isRight(outcome) && right;
    };
    for (const Transport &transport : Transport::all()) {
        play(NeverDeaf::descriptorsOut(transport));
        play(NeverDeaf::workerWithoutDescriptors(transport));
        play(NeverDeaf::closersAtOnce(transport, 10000));
        play(NeverDeaf::resetsInBacklog(transport, 200));
        play(NeverDeaf::portTaken(transport));
        play(NeverDeaf::slowHeaders(transport, 1000));
        play(NeverDeaf::refusedPeers(transport, 10000));
        play(NeverDeaf::pausedPeers(transport, 32));
    }
    for (const Transport &transport : Transport::tls()) {
        play(NeverDeaf::garbageHandshakes(transport, 600));
        const Outcome silent = NeverDeaf::silentPeers(transport, 1000);
        play(silent);
        inTime = inTime && silent.during <= SilentFactor * silent.before;
    }
    if (!right)
        return 2;
    return inTime ? 0 : 1;
}
