// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include "messagecapture.h"

#include <QtCore/QStringList>

// A line in the form that tests compare: the letter of its level (D, I, W, C or F), a colon, a
// blank, and the text without its time. A line without a time is not the library's; it has a small
// letter.
inline QString logLine(const CapturedMessage &message)
{
    constexpr qsizetype TimeLength = 13; // "hh:mm:ss.zzz "
    const bool ours = message.text.size() >= TimeLength && message.text[2] == QLatin1Char(':')
            && message.text[8] == QLatin1Char('.') && message.text[12] == QLatin1Char(' ');
    static_assert(QtDebugMsg == 0 && QtWarningMsg == 1 && QtCriticalMsg == 2 && QtFatalMsg == 3
                  && QtInfoMsg == 4);
    const QChar level = QLatin1String(ours ? "DWCFI" : "dwcfi")[message.level];
    return level + QLatin1String(": ") + (ours ? message.text.mid(TimeLength) : message.text);
}

// The lines since the last call, or since the last MessageCapture::take().
inline QStringList takeLog()
{
    QStringList lines;
    const auto messages = MessageCapture::take();
    for (const CapturedMessage &message : messages)
        lines.append(logLine(message));
    return lines;
}
