// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "eventloop/epolleventdispatcher.h"
#include "host/exitcodes.h"
#include "host/inputhost.h"
#include "host/logging.h"
#include "host/options.h"
#include "host/process.h"
#include "programs/encoding.h"

#include <QtCore/QCoreApplication>

#include <chrono>
#include <cstdio>

using namespace host;

namespace {
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

    installLogging(commandLine.options.logLevel);
    raiseDescriptorLimit();
    const int code = InputHost(commandLine.options).run();
    finishLogging();
    return code;
}
