// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "host/logging.h"

#include "host/logstream.h"
#include "plugin/kit/linelimit.h"

#include <QtCore/QByteArray>
#include <QtCore/QDebug>

#include <mutex>

#include <unistd.h>

namespace host {
namespace {

using inputkit::LineLimit;

// Enough for the lines of one connection a second; less than 1 MB a minute for both levels.
constexpr int MostLinesAMinute = 2000;

struct Level
{
    const char *name;
    int importance;
};

Level levelOf(QtMsgType type)
{
    switch (type) {
    case QtDebugMsg:
        return {"debug", 0};
    case QtInfoMsg:
        return {"info", 1};
    case QtWarningMsg:
        return {"warning", 2};
    case QtCriticalMsg:
        return {"error", 3};
    case QtFatalMsg:
        break;
    }
    return {"fatal", 4};
}

// Deliberate: never deleted. Other threads write for as long as the process lives.
LogStream &standardError()
{
    static LogStream &stream = *new LogStream(STDERR_FILENO);
    return stream;
}

//! The lines that an operator wants to see.
class Filter
{
public:
    void setLeast(int importance) { least = importance; }
    int leastImportance() const { return least; }

    // Whether to write the line. missed: what to write before it about lines that were not written.
    bool allows(const Level &level, QByteArray &missed)
    {
        const std::lock_guard lock(mutex);
        missed = takeMissed(false);
        if (level.importance >= levelOf(QtCriticalMsg).importance || least == 0)
            return true; // at the level "debug" everything is asked for
        LineLimit &limit = level.importance == 1 ? infos : warnings;
        return limit.allows();
    }

    QByteArray takeMissedAtEnd()
    {
        const std::lock_guard lock(mutex);
        return takeMissed(true);
    }

private:
    QByteArray takeMissed(bool atOnce)
    {
        return text("info", infos.takeMissed(atOnce))
                + text("warning", warnings.takeMissed(atOnce));
    }
    static QByteArray text(const char *level, qint64 lines)
    {
        if (lines == 0)
            return {};
        return QByteArray(level) + ": " + QByteArray::number(lines)
                + " more lines of this level within a minute, not shown\n";
    }

    int least = 0; // set before other threads exist
    std::mutex mutex;
    // Guarded by mutex.
    LineLimit infos{MostLinesAMinute};
    LineLimit warnings{MostLinesAMinute};
};

Filter &filter()
{
    static Filter &instance = *new Filter;
    return instance;
}

void handleMessage(QtMsgType type, const QMessageLogContext &, const QString &text)
{
    const Level level = levelOf(type);
    if (level.importance < filter().leastImportance())
        return;
    QByteArray missed;
    if (filter().allows(level, missed))
        standardError().write(missed + level.name + ": " + text.toUtf8() + '\n');
}

} // namespace

void installLogging(const QString &logLevel)
{
    for (const QtMsgType type : {QtDebugMsg, QtInfoMsg, QtWarningMsg}) {
        if (logLevel == QLatin1String(levelOf(type).name))
            filter().setLeast(levelOf(type).importance);
    }
    qInstallMessageHandler(handleMessage);
}

void report(const QString &text)
{
    standardError().write(text.toUtf8());
}

void finishLogging()
{
    if (const QByteArray missed = filter().takeMissedAtEnd(); !missed.isEmpty())
        standardError().write(missed);
    standardError().finish();
}

} // namespace host
