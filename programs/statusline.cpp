// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "programs/statusline.h"

#include <QtCore/QElapsedTimer>

#include <cstdio>

#include <sys/ioctl.h>
#include <unistd.h>

namespace programs {
namespace {

constexpr qint64 IntervalMs = 200;
constexpr int UsualColumns = 80;
const char ToBeginAndClear[] = "\r\033[K";

bool isShown = false;
QElapsedTimer sinceLast;

// It may change at any time.
int columns()
{
    winsize size = {};
    const bool isKnown = ::ioctl(STDERR_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 1;
    return isKnown ? size.ws_col : UsualColumns;
}

} // namespace

bool StatusLine::isPossible()
{
    static const bool result = ::isatty(STDERR_FILENO) == 1;
    return result;
}

bool StatusLine::isDue()
{
    return isPossible() && (!sinceLast.isValid() || sinceLast.elapsed() >= IntervalMs);
}

void StatusLine::show(const QString &text)
{
    if (!isPossible())
        return;
    sinceLast.start();
    // A text in the last column could go on in the next line.
    std::fprintf(stderr, "%s%s", ToBeginAndClear, qPrintable(text.left(columns() - 1)));
    std::fflush(stderr);
    isShown = true;
}

void StatusLine::hide()
{
    if (!isShown)
        return;
    std::fputs(ToBeginAndClear, stderr);
    std::fflush(stderr);
    isShown = false;
}

} // namespace programs
