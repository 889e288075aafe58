// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "eventloop/epolleventdispatcher.h"
#include "hostcheck/library/checkrunner.h"
#include "hostcheck/library/checks.h"
#include "hostcheck/options.h"
#include "hostcheck/parser/parserchecks.h"
#include "hostcheck/program/programchecks.h"
#include "hostcheck/report.h"
#include "programs/encoding.h"

#include <QtCore/QCoreApplication>
#include <QtCore/QFileInfo>

#include <cstdio>
#include <new>

using namespace hostcheck;

namespace {

ExitStatus complain(const QString &text)
{
    std::fprintf(stderr, "hostcheck: %s\n", qPrintable(text));
    return ExitUsage;
}

// All that devices send. Empty after a complaint.
QList<Traffic> readTraffic(const Options &options)
{
    TrafficReader reader;
    QList<Traffic> all;
    for (const QString &file : options.streams)
        all += reader.readStream(file, options.framing, options.lengthsFile);
    for (const QString &file : options.descriptions)
        all += reader.readDescription(file);
    if (reader.error.isEmpty())
        return all;
    complain(reader.error);
    return {};
}

// error: why some checks could not be made, or empty. Faults that were found count for more.
ExitStatus finish(const Report &report, const Options &options, const QString &error = {})
{
    if (report.isEmpty())
        return complain(error.isEmpty() ? QStringLiteral("no check of this name") : error);
    report.finish();
    ExitStatus status = ExitOk;
    if (!error.isEmpty())
        status = complain(error);
    if (!options.junitFile.isEmpty() && !report.writeJunit(options.junitFile))
        status = complain(QStringLiteral("cannot write %1").arg(options.junitFile));
    return report.hasFailures() ? ExitFaults : status;
}

ExitStatus checkParser(const Options &options)
{
    ParserProcess parser(options.file, options.timeLimitMs);
    const QString error = parser.loadError();
    if (!error.isEmpty())
        return complain(error);
    const QList<Traffic> all = readTraffic(options);
    if (all.isEmpty())
        return ExitUsage;
    Report report(QStringLiteral("hostcheck parser"));
    for (const Traffic &traffic : all) {
        parser.setTimeLimitMs(options.timeLimitMs);
        const QList<Verdict> verdicts = ParserChecks(parser, traffic).run(options.only);
        for (const Verdict &verdict : verdicts)
            report.add(verdict);
    }
    return finish(report, options, parser.error());
}

ExitStatus checkHostProgram(const Options &options)
{
    const QList<Traffic> all = readTraffic(options);
    if (all.isEmpty())
        return ExitUsage;
    Report report(QStringLiteral("hostcheck parser"));
    for (const Traffic &traffic : all) {
        if (!traffic.framing)
            return complain(QStringLiteral("%1: a host program needs --framing").arg(traffic.name));
        const QList<Verdict> verdicts =
                ProgramChecks(options.command, options.timeLimitMs, traffic).run(options.only);
        for (const Verdict &verdict : verdicts)
            report.add(verdict);
    }
    return finish(report, options);
}

ExitStatus checkPlugin(const Options &options)
{
    if (!options.single.isEmpty())
        return CheckRunner::runSingle(options.file, options.timeLimitMs, options.single);
    if (!QFileInfo(options.file).isReadable())
        return complain(QStringLiteral("cannot read %1").arg(options.file));
    Report report(QStringLiteral("hostcheck plugin"));
    CheckRunner(QFileInfo(options.file).absoluteFilePath(), options.timeLimitMs, report)
            .run(options.only);
    return finish(report, options);
}

ExitStatus listChecks()
{
    for (const Check &check : allChecks())
        std::printf("%s\n", check.name);
    return ExitOk;
}

ExitStatus check(const Options &options)
{
    switch (options.subject) {
    case Options::Parser:
        return checkParser(options);
    case Options::HostProgram:
        return checkHostProgram(options);
    case Options::Plugin:
        return options.listsChecks ? listChecks() : checkPlugin(options);
    }
    return ExitUsage;
}

} // namespace

int main(int argc, char **argv)
{
    programs::settleEncoding();
    // Cheap with thousands of sockets. If it cannot be made, Qt uses its own.
    if (std::unique_ptr<QAbstractEventDispatcher> dispatcher = EpollEventDispatcher::create())
        QCoreApplication::setEventDispatcher(dispatcher.release());
    QCoreApplication application(argc, argv);
    const CommandLine commandLine = parseCommandLine(QCoreApplication::arguments());
    switch (commandLine.outcome) {
    case CommandLine::Inform:
        std::fputs(qPrintable(commandLine.text), stdout);
        return ExitOk;
    case CommandLine::Refuse:
        return complain(commandLine.text + QStringLiteral("\nTry hostcheck --help."));
    case CommandLine::Run:
        break;
    }
    try {
        return check(commandLine.options);
    } catch (const std::bad_alloc &) {
        return complain(QStringLiteral("out of memory"));
    }
}
