// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include <QtCore/QString>

namespace host {

/*!
    Log lines, from this program, the plugin and Qt, go to standard error, each with its level. No
    thread waits for the reader of standard error: see LogStream.

    Thread: any, once installed.
*/

// logLevel: "debug", "info" or "warning"; less important lines are not written, errors always
// are. Unless the level is "debug", 2,000 info lines a minute are, and as many warnings; the others
// are counted.
void installLogging(const QString &logLevel);

// What an operator has asked for: to standard error, whatever the log level.
void report(const QString &text);

// At the end of the program: writes what waits, as far as somebody reads it.
void finishLogging();

} // namespace host
