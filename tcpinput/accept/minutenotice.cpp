// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "tcpinput/accept/minutenotice.h"

#include <utility>

MinuteNotice::MinuteNotice(int intervalMs)
{
    timer.setSingleShot(true);
    timer.setInterval(intervalMs);
    connect(&timer, &QTimer::timeout, this, &MinuteNotice::tell);
}

void MinuteNotice::add(const QString &details)
{
    ++all;
    ++untold;
    latest = details;
    if (!timer.isActive())
        tell();
}

void MinuteNotice::finish()
{
    timer.stop();
    if (untold > 0)
        Q_EMIT due(std::exchange(untold, 0), latest);
}

void MinuteNotice::tell()
{
    if (untold == 0)
        return;
    timer.start();
    Q_EMIT due(std::exchange(untold, 0), QString(latest)); // receivers may delete this
}
