// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "hostcheck/library/logtap.h"

#include <QtCore/QMutex>
#include <QtCore/QMutexLocker>
#include <QtCore/QRegularExpression>

#include <algorithm>

namespace hostcheck {
namespace {

struct Kept
{
    QMutex mutex;
    QList<LogLine> lines; // guarded by mutex
};

Kept &kept()
{
    static Kept instance;
    return instance;
}

void keep(QtMsgType type, const QMessageLogContext &, const QString &message)
{
    static const QRegularExpression time(
            QStringLiteral("^[0-2][0-9]:[0-5][0-9]:[0-6][0-9]\\.[0-9]{3} ?"));
    const auto match = time.match(message);
    const QString text = match.hasMatch() ? message.mid(match.capturedLength()) : message;
    const QMutexLocker locker(&kept().mutex);
    kept().lines.append({type, text, match.hasMatch()});
}

} // namespace

LogTap::LogTap()
{
    clear();
    qInstallMessageHandler(keep);
}

LogTap::~LogTap()
{
    qInstallMessageHandler(nullptr);
}

QList<LogLine> LogTap::lines() const
{
    const QMutexLocker locker(&kept().mutex);
    return kept().lines;
}

QStringList LogTap::texts(const QString &word) const
{
    QStringList result;
    const QList<LogLine> all = lines();
    for (const LogLine &line : all) {
        if (line.text.contains(word))
            result += line.text;
    }
    return result;
}

bool LogTap::has(QtMsgType type, const QString &text) const
{
    const QList<LogLine> all = lines();
    return std::any_of(all.begin(), all.end(), [&](const LogLine &line) {
        return line.type == type && line.text == text && line.hasTime;
    });
}

void LogTap::clear()
{
    const QMutexLocker locker(&kept().mutex);
    kept().lines.clear();
}

} // namespace hostcheck
