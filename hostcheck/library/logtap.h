// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include <QtCore/QList>
#include <QtCore/QString>
#include <QtCore/QStringList>

namespace hostcheck {

//! A line of Qt's message output.
struct LogLine
{
    QtMsgType type = QtDebugMsg;
    QString text; // without the time
    bool hasTime = false; // it began with one, as all lines of the library do
};

/*!
    Keeps what is written to Qt's message output, from its construction on.

    Thread: any may write; the functions: any.
    Owner:  the caller; one at a time.
    Locks:  one of its own.
*/
class LogTap
{
public:
    LogTap();
    ~LogTap();
    LogTap(const LogTap &) = delete;
    LogTap &operator=(const LogTap &) = delete;

    QList<LogLine> lines() const;
    // The texts of those that contain a word, in their order.
    QStringList texts(const QString &word = QString()) const;
    bool has(QtMsgType type, const QString &text) const;
    void clear();
};

} // namespace hostcheck
