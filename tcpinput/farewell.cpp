// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "tcpinput/farewell.h"

#include <QtCore/QTimerEvent>

#include <algorithm>
#include <cmath>

namespace {

// So that thousands of clients need few wake-ups.
constexpr std::chrono::milliseconds ShortestPause{10};
constexpr std::chrono::milliseconds LongestPause{60000}; // fits into a timer

} // namespace

void Farewell::begin(const QList<TcpClient2 *> &clients, std::chrono::milliseconds spread,
                     double phase)
{
    all = QList<QPointer<TcpClient2>>(clients.begin(), clients.end());
    told = 0;
    start = Clock::steady();
    time = spread;
    firstPhase = phase;
    tell();
}

qsizetype Farewell::due(qsizetype count, double phase, double part)
{
    if (part >= 1)
        return count;
    const double passed = std::floor(part * static_cast<double>(count) - phase) + 1;
    return std::clamp<qsizetype>(static_cast<qsizetype>(passed), 0, count);
}

void Farewell::timerEvent(QTimerEvent *event)
{
    if (event->timerId() != timer.timerId())
        return QObject::timerEvent(event);
    tell();
}

void Farewell::tell()
{
    using Ms = std::chrono::duration<double, std::milli>;
    const double part = time.count() > 0 ? Ms(Clock::steady() - start) / Ms(time) : 1;
    for (const qsizetype last = due(all.size(), firstPhase, part); told < last; ++told) {
        if (TcpClient2 *client = all.at(told))
            client->endWriting();
    }
    if (told < all.size())
        return startTimer();
    timer.stop();
    all.clear();
    told = 0;
}

void Farewell::startTimer()
{
    const double part = (static_cast<double>(told) + firstPhase) / static_cast<double>(all.size());
    const auto next = start + std::chrono::duration_cast<Clock::Steady::duration>(part * time);
    const auto rest = std::chrono::ceil<std::chrono::milliseconds>(next - Clock::steady());
    timer.start(static_cast<int>(std::clamp(rest, ShortestPause, LongestPause).count()),
                Qt::PreciseTimer, this);
}
