// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include "tests/kit/hangguard.h"

#include <QtCore/QEventLoop>
#include <QtCore/QTimer>

#include <functional>

// Runs the host's event loop until the condition holds. False after the hang guard.
inline bool serveUntil(const std::function<bool()> &condition)
{
    constexpr int LookMs = 2;
    QEventLoop loop;
    QTimer look;
    QObject::connect(&look, &QTimer::timeout, &loop, [&] {
        if (condition())
            loop.quit();
    });
    QTimer::singleShot(LoadHangGuardMs, &loop, [&loop] { loop.exit(1); });
    look.start(LookMs);
    return loop.exec() == 0;
}
