// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "simulator/progress.h"

#include "programs/statusline.h"
#include "simulator/fleet.h"
#include "simulator/replay.h"
#include "simulator/run.h"

#include <cmath>
#include <cstdio>

#include <unistd.h>

namespace simulator {
namespace {

using programs::StatusLine;

constexpr int TerminalIntervalMs = 250;
constexpr int LineIntervalMs = 1000;
constexpr qint64 RateIntervalMs = 1000;
constexpr qint64 ForecastAfterMs = 2000; // before, the mean says little
constexpr double MsPerSecond = 1e3;
constexpr qint64 MaxForecastSeconds = 100 * 3600;

double messagesInAll(const Run &run)
{
    if (run.script || run.input)
        return 0;
    if (!run.replay)
        return static_cast<double>(run.options.messages)
                * static_cast<double>(run.options.connections);
    double all = 0;
    for (quint64 device = 1; device <= run.replay->deviceCount(); ++device)
        all += static_cast<double>(run.replay->messageCount(device));
    return all;
}

// As h:mm:ss or m:ss.
QString timeText(qint64 seconds)
{
    const auto twoDigits = [](qint64 value) {
        return QStringLiteral("%1").arg(value, 2, 10, QLatin1Char('0'));
    };
    const QString rest = twoDigits(seconds % 60);
    if (seconds < 3600)
        return QStringLiteral("%1:%2").arg(seconds / 60).arg(rest);
    return QStringLiteral("%1:%2:%3").arg(seconds / 3600).arg(twoDigits(seconds / 60 % 60), rest);
}

} // namespace

bool Progress::isWanted(const Run &run)
{
    if (run.options.progress)
        return *run.options.progress;
    return StatusLine::isPossible() && !(run.input && ::isatty(STDIN_FILENO) == 1);
}

QString Progress::rateText(double perSecond)
{
    return QString::number(std::llround(perSecond));
}

Progress::Progress(const Run &sharedRun, const Fleet &shownFleet)
    : run(sharedRun),
      fleet(shownFleet),
      allMessages(messagesInAll(sharedRun))
{
    connect(&timer, &QTimer::timeout, this, &Progress::show);
    timer.start(StatusLine::isPossible() ? TerminalIntervalMs : LineIntervalMs);
}

void Progress::show()
{
    if (StatusLine::isPossible())
        StatusLine::show(text());
    else
        std::fprintf(stderr, "%s\n", qPrintable(text()));
}

QString Progress::text()
{
    const Fleet::Numbers numbers = fleet.numbers();
    const qint64 nowMs = run.clock.elapsed();
    if (nowMs - lastMs >= RateIntervalMs) {
        perSecond = static_cast<double>(numbers.messages - lastMessages)
                / static_cast<double>(nowMs - lastMs) * MsPerSecond;
        lastMs = nowMs;
        lastMessages = numbers.messages;
    }
    QString line =
            QStringLiteral("%1 of %2 devices started, %3 active; %4 messages, %5/s; %6 failed")
                    .arg(numbers.started)
                    .arg(run.options.connections)
                    .arg(numbers.active)
                    .arg(numbers.messages)
                    .arg(rateText(perSecond))
                    .arg(numbers.failed);
    if (allMessages <= 0 || numbers.messages == 0 || nowMs < ForecastAfterMs)
        return line;
    const auto sent = static_cast<double>(numbers.messages);
    const double left = (allMessages - sent) / sent * static_cast<double>(nowMs) / MsPerSecond;
    if (left > 0 && left < MaxForecastSeconds)
        line += QStringLiteral("; %1 left").arg(timeText(static_cast<qint64>(std::ceil(left))));
    return line;
}

} // namespace simulator
