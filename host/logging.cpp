// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "host/logging.h"

#include <QtCore/QByteArray>
#include <QtCore/QDebug>

#include <atomic>
#include <cstdio>

namespace host {
namespace {

struct Level
{
    const char *name;
    int importance;
};

std::atomic<int> leastImportance = 0; // set before other threads exist, as a rule

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

// One call a line: lines of several threads do not mix.
void writeToStandardError(const QByteArray &text)
{
    std::fwrite(text.constData(), 1, static_cast<size_t>(text.size()), stderr);
}

void handleMessage(QtMsgType type, const QMessageLogContext &, const QString &text)
{
    const Level level = levelOf(type);
    if (level.importance >= leastImportance)
        writeToStandardError(QByteArray(level.name) + ": " + text.toUtf8() + '\n');
}

} // namespace

void installLogging(const QString &logLevel)
{
    for (const QtMsgType type : {QtDebugMsg, QtInfoMsg, QtWarningMsg}) {
        if (logLevel == QLatin1String(levelOf(type).name))
            leastImportance = levelOf(type).importance;
    }
    qInstallMessageHandler(handleMessage);
}

void report(const QString &text)
{
    writeToStandardError(text.toUtf8());
}

} // namespace host
