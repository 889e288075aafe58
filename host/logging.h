// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include <QtCore/QString>

namespace host {

/*!
    Log lines, from this program, the plugin and Qt, go to standard error, each with its level.

    Thread: any, once installed.
*/

// logLevel: "debug", "info" or "warning"; less important lines are dropped, errors never.
void installLogging(const QString &logLevel);

// What an operator has asked for: to standard error, whatever the log level.
void report(const QString &text);

} // namespace host
