// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include <QtCore/QElapsedTimer>
#include <QtCore/QHash>
#include <QtCore/QString>
#include <QtCore/QStringList>

namespace host {

/*!
    Limits the log lines of one level: a minute has room for so many lines, and half of that for
    lines of one kind. So a flood of one line hides no other. Lines are of one kind if they differ
   in digits only, in their first characters.

    Thread: one at a time.
*/
class LogLimit
{
public:
    // Enough for the lines of one connection a second; less than 1 MB a minute for two levels.
    static constexpr int MostLinesAMinute = 2000;
    static constexpr int MostOfAKind = MostLinesAMinute / 2;

    LogLimit() { since.start(); }

    // Whether the line may be written. If not, it is counted.
    bool allows(const QString &line);

    // Begins the next minute if this one is over, or if atOnce. Returns what to write about the
    // lines that the ended minute has not written.
    QStringList takeMissed(bool atOnce);

private:
    struct Kind
    {
        QString example; // the first line
        int lines = 0;
        qint64 missed = 0;
    };

    // Of this minute.
    QElapsedTimer since; // its beginning
    QHash<QString, Kind> kinds;
    int lines = 0;
    qint64 missed = 0; // of all kinds, beyond MostLinesAMinute
};

} // namespace host
