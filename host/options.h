// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include "host/framing.h"
#include "host/logging.h"
#include "host/outputoptions.h"
#include "host/web/monitoroptions.h"
#include "plugin/kit/pluginloader.h"
#include "plugin/recording/trafficrecorder.h"

#include <QtCore/QJsonValue>
#include <QtCore/QList>
#include <QtCore/QString>
#include <QtCore/QStringList>

#include <utility>

namespace host {

//! What the command line asks for.
struct Options
{
    enum Task {
        Serve,
        CheckConfiguration,
        PrintConfiguration,
        PrintSchema,
    };

    Task task = Serve;
    QString pluginFile; // empty: look for it
    inputkit::EntryPoint entryPoint = inputkit::EntryPoint::Create;
    QString configFile; // empty: none; "-": standard input
    QList<std::pair<QString, QJsonValue>> settings; // applied over the file, in this order
    QString id;
    FrameFormat format;
    qint64 maxUnfinished = 0; // bytes of unfinished messages, over all connections
    OutputOptions output;
    int saveWithinSeconds = 60; // at the end, for messages that are not safe yet
    QString logLevel; // "debug", "info" or "warning"
    LogFormat logFormat = LogFormat::Text;
    int statusEverySeconds = 0; // 0: never
    bool statusConnections = false; // the status tells of each connection
    qint64 exitAfter = 0; // messages; 0: never
    int drainSeconds = 0; // devices are told within this time that a plugin leaves; 0: not given
    MonitorOptions monitor; // who may look at the program
    inputkit::RecordingOptions recording; // no file: nothing is recorded
};

struct CommandLine
{
    enum Outcome {
        Run, // with the options
        Inform, // the text was asked for: help or version
        Refuse, // the text says what is wrong
    };

    Outcome outcome = Run;
    Options options;
    QString text;
};

// arguments: of QCoreApplication::arguments(). The application object must exist.
CommandLine parseCommandLine(const QStringList &arguments);

} // namespace host
