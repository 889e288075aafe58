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

// logLevel: "debug", "info" or "warning"; less important lines are not written, errors always are.
// Unless the level is "debug", at most 2,000 info lines and 2,000 warnings a minute are written;
// the others are counted.
void installLogging(const QString &logLevel);

// Writes what an operator has asked for to standard error, whatever the log level.
void report(const QString &text);

// At the end of the program: writes the lines that wait, as long as somebody reads them.
void finishLogging();

} // namespace host
