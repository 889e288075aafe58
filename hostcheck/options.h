// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include <QtCore/QRegularExpression>
#include <QtCore/QString>
#include <QtCore/QStringList>

namespace hostcheck {

//! The exit status; listed in the help.
enum ExitStatus {
    ExitOk = 0,
    ExitFaults = 1,
    ExitUsage = 2,
    ExitSkipped = 77, // not listed: the process of one check could not make it
};

//! What the command line asks for.
struct Options
{
    enum Subject { Parser, HostProgram, Plugin };

    Subject subject = Parser;
    QString file; // Parser, Plugin: a shared object
    QString command; // HostProgram
    QStringList streams; // files of raw bytes
    QStringList descriptions; // files that describe traffic
    QString framing; // of the streams; empty: not known
    QString lengthsFile; // the lengths of the streams' messages; empty: not known
    // Parser: processor time of one call. HostProgram, Plugin: for what has to come.
    int timeLimitMs = 0;
    QRegularExpression only; // names of checks
    QString junitFile; // empty: none
    QString single; // Plugin: the one check that this process makes; empty: all, each in its own
    bool listsChecks = false; // Plugin: only print their names
};

struct CommandLine
{
    enum Outcome { Run, Inform, Refuse };

    Outcome outcome = Run;
    Options options;
    QString text; // Inform: what was asked for; Refuse: what is wrong
};

// arguments: of QCoreApplication::arguments().
CommandLine parseCommandLine(const QStringList &arguments);

} // namespace hostcheck
