// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "eventloop/epolleventdispatcher.h"
#include "host/exitcodes.h"
#include "host/inputhost.h"
#include "host/logging.h"
#include "host/options.h"
#include "host/process.h"

#include <QtCore/QCoreApplication>

#include <chrono>
#include <cstdio>

using namespace host;

namespace {
// Each record wakes this thread up, a large part of what a message costs: once in this time is
// enough. So a message is printed up to 5 ms later than it could be, or 6: the waits are of whole
// milliseconds. After a rest the thread is woken at once.
constexpr std::chrono::milliseconds WakeUpInterval(5);
} // namespace

int main(int argc, char *argv[])
{
    occupyStandardDescriptors();
    ignoreBrokenPipes();
    settleTimeZone();
    settleEncoding();
    settleMemory();
    // Without descriptors for this one, Qt takes its own.
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
