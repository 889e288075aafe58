// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "hostcheck/progress.h"

#include "programs/statusline.h"

#include <algorithm>

namespace hostcheck {

using programs::StatusLine;

void Progress::show(const QString &what, qint64 done, qint64 all)
{
    if (!StatusLine::isDue())
        return;
    const qint64 percent = all > 0 ? std::min<qint64>(100 * done / all, 100) : 0;
    StatusLine::show(
            QStringLiteral("%1: %2 of %3 (%4 %)").arg(what).arg(done).arg(all).arg(percent));
}

void Progress::hide()
{
    StatusLine::hide();
}

} // namespace hostcheck
