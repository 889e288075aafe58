// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "host/logging.h"

#include "host/harmless.h"
#include "host/loglimit.h"
#include "host/logstream.h"

#include <QtCore/QByteArray>
#include <QtCore/QDateTime>
#include <QtCore/QDebug>
#include <QtCore/QJsonDocument>
#include <QtCore/QJsonObject>
#include <QtCore/QRegularExpression>

#include <mutex>

#include <unistd.h>

namespace host {
namespace {

struct Level
{
    const char *name;
    int importance;
    int priority; // as systemd and syslog have it
};

Level levelOf(QtMsgType type)
{
    switch (type) {
    case QtDebugMsg:
        return {"debug", 0, 7};
    case QtInfoMsg:
        return {"info", 1, 6};
    case QtWarningMsg:
        return {"warning", 2, 4};
    case QtCriticalMsg:
        return {"error", 3, 3};
    case QtFatalMsg:
        break;
    }
    return {"fatal", 4, 2};
}

// Deliberate: never deleted. Other threads write for as long as the process lives.
LogStream &standardError()
{
    static LogStream &stream = *new LogStream(STDERR_FILENO);
    return stream;
}

// The plugin's lines begin with the local time of day, which says less than the object's time.
QString withoutTime(const QString &text)
{
    static const QRegularExpression time(QStringLiteral("^\\d\\d:\\d\\d:\\d\\d\\.\\d{3} "));
    return time.match(text).hasMatch() ? text.sliced(time.match(text).capturedLength()) : text;
}

QByteArray asJson(const Level &level, const QString &text)
{
    const QJsonObject object{
            {QStringLiteral("time"), QDateTime::currentDateTimeUtc().toString(Qt::ISODateWithMs)},
            {QStringLiteral("level"), QLatin1String(level.name)},
            {QStringLiteral("text"), withoutTime(text)}};
    return harmlessJson(QJsonDocument(object).toJson(QJsonDocument::Compact)) + '\n';
}

LogFormat logFormat = LogFormat::Text; // set before other threads exist

QByteArray written(const Level &level, const QString &text)
{
    switch (logFormat) {
    case LogFormat::Journal:
        return '<' + QByteArray::number(level.priority) + '>' + level.name + ": "
                + harmless(text).toUtf8() + '\n';
    case LogFormat::Json:
        return asJson(level, text);
    case LogFormat::Text:
        break;
    }
    return QByteArray(level.name) + ": " + harmless(text).toUtf8() + '\n';
}

//! The lines that an operator wants to see.
class Filter
{
public:
    void setLeast(int importance) { least = importance; }
    int leastImportance() const { return least; }

    // Whether to write the line. missed: what to write before it about lines that were not written.
    bool allows(const Level &level, const QString &text, QByteArray &missed)
    {
        const std::lock_guard lock(mutex);
        missed = takeMissed(false);
        if (level.importance >= levelOf(QtCriticalMsg).importance || least == 0)
            return true; // at the level "debug" everything is asked for
        return (level.importance == 1 ? infos : warnings).allows(text);
    }

    QByteArray takeMissedAtEnd()
    {
        const std::lock_guard lock(mutex);
        return takeMissed(true);
    }

private:
    QByteArray takeMissed(bool atOnce)
    {
        QByteArray result;
        for (const QString &text : infos.takeMissed(atOnce))
            result += written(levelOf(QtInfoMsg), text);
        for (const QString &text : warnings.takeMissed(atOnce))
            result += written(levelOf(QtWarningMsg), text);
        return result;
    }

    int least = 0; // set before other threads exist
    std::mutex mutex;
    // Guarded by mutex.
    LogLimit infos;
    LogLimit warnings;
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
    const bool isAllowed = filter().allows(level, text, missed);
    if (isAllowed)
        missed += written(level, text);
    if (!missed.isEmpty())
        standardError().write(missed);
}

} // namespace

void installLogging(const QString &logLevel, LogFormat format)
{
    logFormat = format;
    for (const QtMsgType type : {QtDebugMsg, QtInfoMsg, QtWarningMsg}) {
        if (logLevel == QLatin1String(levelOf(type).name))
            filter().setLeast(levelOf(type).importance);
    }
    qInstallMessageHandler(handleMessage);
}

void report(const QString &text)
{
    if (logFormat == LogFormat::Text) {
        standardError().write(text.toUtf8());
        return;
    }
    QByteArray lines;
    for (const QString &line : text.split(u'\n', Qt::SkipEmptyParts))
        lines += written(levelOf(QtInfoMsg), line);
    standardError().write(lines);
}

void finishLogging()
{
    if (const QByteArray missed = filter().takeMissedAtEnd(); !missed.isEmpty())
        standardError().write(missed);
    standardError().finish();
}

} // namespace host
