// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "eventloop/epolleventdispatcher.h"
#include "host/check/configcheck.h"
#include "host/check/valuesinforce.h"
#include "host/configuration.h"
#include "host/exitcodes.h"
#include "host/inputhost.h"
#include "host/logging.h"
#include "host/options.h"
#include "host/process.h"
#include "host/versions.h"
#include "plugin/cwrn.h"
#include "programs/encoding.h"

#include <QtCore/QCoreApplication>
#include <QtCore/QJsonDocument>

#include <chrono>
#include <cstdio>

using namespace host;

namespace {

int checkConfiguration(const Options &options)
{
    ConfigCheck check(options);
    const ExitCode code = check.run();
    for (const QString &line : check.lines())
        std::puts(qPrintable(line));
    std::puts(code == ExitOk ? "The configuration is good." : "The configuration is not good.");
    return code;
}

int printConfiguration(const Options &options)
{
    ConfigurationReader reader(options);
    if (!reader.read()) {
        report(reader.errorString() + u'\n');
        finishLogging();
        return ExitBadConfiguration;
    }
    for (const QString &line : valuesInForce(reader.configuration(), options, reader.sourceName()))
        std::puts(qPrintable(line));
    return ExitOk;
}

int printSchema()
{
    std::fputs(QJsonDocument(configurationSchema()).toJson().constData(), stdout);
    return ExitOk;
}

int serve(const Options &options)
{
    installLogging(options.logLevel, options.logFormat);
    CWRN(QtInfoMsg, QStringLiteral("inputhost %1, Qt %2, %3"),
         QCoreApplication::applicationVersion(), QLatin1String(qVersion()), opensslVersion());
    raiseDescriptorLimit();
    const int code = InputHost(options).run();
    finishLogging();
    return code;
}

int run(const Options &options)
{
    switch (options.task) {
    case Options::CheckConfiguration:
        return checkConfiguration(options);
    case Options::PrintConfiguration:
        return printConfiguration(options);
    case Options::PrintSchema:
        return printSchema();
    case Options::Serve:
        break;
    }
    return serve(options);
}

// Waking this thread for each record would be a large part of a message's cost. So records wake it
// at most once in this time. A message is then printed up to 5 ms late, or 6, since waits are whole
// milliseconds. After a rest, a record wakes the thread at once.
constexpr std::chrono::milliseconds WakeUpInterval(5);
} // namespace

int main(int argc, char *argv[])
{
    occupyStandardDescriptors();
    ignoreBrokenPipes();
    settleTimeZone();
    programs::settleEncoding();
    settleMemory();
    // If there are no descriptors for this dispatcher, Qt uses its own.
    if (auto dispatcher = EpollEventDispatcher::create(WakeUpInterval))
        QCoreApplication::setEventDispatcher(dispatcher.release());
    QCoreApplication application(argc, argv);
    QCoreApplication::setApplicationName(QStringLiteral("inputhost"));
    QCoreApplication::setApplicationVersion(QStringLiteral(INPUTHOST_VERSION));

    const CommandLine commandLine = parseCommandLine(QCoreApplication::arguments());
    switch (commandLine.outcome) {
    case CommandLine::Inform:
        std::fputs(qPrintable(commandLine.text), stdout);
        return ExitOk;
    case CommandLine::Refuse:
        report(commandLine.text + QStringLiteral("\nTry inputhost --help.\n"));
        finishLogging();
        return ExitBadArguments;
    case CommandLine::Run:
        break;
    }

    return run(commandLine.options);
}
