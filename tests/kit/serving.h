// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include <QtCore/QEventLoop>
#include <QtCore/QTimer>

#include <functional>

// Runs the host's event loop until the condition holds; false after three minutes without.
inline bool serveUntil(const std::function<bool()> &condition)
{
    constexpr int HangGuardMs = 180000;
    constexpr int LookMs = 2;
    QEventLoop loop;
    QTimer look;
    QObject::connect(&look, &QTimer::timeout, &loop, [&] {
        if (condition())
            loop.quit();
    });
    QTimer::singleShot(HangGuardMs, &loop, [&loop] { loop.exit(1); });
    look.start(LookMs);
    return loop.exec() == 0;
}
