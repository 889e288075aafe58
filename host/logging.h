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

//! How a line looks. What could break it or command a terminal is escaped in each.
enum class LogFormat {
    Text, // "warning: 12:00:00.000 ..."
    Journal, // the same behind "<4>", systemd's priority of the line
    Json, // an object a line: time (UTC), level, text
};

// logLevel: "debug", "info" or "warning"; less important lines are not written, errors always are.
// Unless the level is "debug", in a minute at most 1,000 lines of one kind and level are written,
// and 2,000 info lines and 2,000 warnings in all; the others are counted. Lines that differ in
// numbers only are of one kind.
void installLogging(const QString &logLevel, LogFormat format = LogFormat::Text);

// Writes what an operator has asked for to standard error, whatever the log level: whole lines.
void report(const QString &text);

// At the end of the program: writes the lines that wait, as long as somebody reads them.
void finishLogging();

} // namespace host
