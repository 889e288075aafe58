// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "hostcheck/progress.h"

#include <QtCore/QElapsedTimer>

#include <algorithm>
#include <cstdio>

#include <unistd.h>

namespace hostcheck {
namespace {

constexpr qint64 IntervalMs = 100;

bool isShown = false;

bool isTerminal()
{
    static const bool result = isatty(STDERR_FILENO) == 1;
    return result;
}

} // namespace

void Progress::show(const QString &what, qint64 done, qint64 all)
{
    static QElapsedTimer sinceLast;
    if (!isTerminal() || (sinceLast.isValid() && sinceLast.elapsed() < IntervalMs))
        return;
    sinceLast.start();
    const qint64 percent = all > 0 ? std::min<qint64>(100 * done / all, 100) : 0;
    std::fprintf(stderr, "\r\033[K%s: %lld of %lld (%lld %%)", qPrintable(what),
                 static_cast<long long>(done), static_cast<long long>(all),
                 static_cast<long long>(percent));
    std::fflush(stderr);
    isShown = true;
}

void Progress::hide()
{
    if (!isShown)
        return;
    std::fputs("\r\033[K", stderr);
    std::fflush(stderr);
    isShown = false;
}

} // namespace hostcheck
