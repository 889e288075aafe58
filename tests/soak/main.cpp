// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "restartinghost.h"

#include "host/exitcodes.h"
#include "host/logging.h"
#include "host/process.h"

#include <QtCore/QCoreApplication>

using namespace host;

int main(int argc, char *argv[])
{
    ignoreBrokenPipes();
    QCoreApplication application(argc, argv);
    const CommandLine commandLine = parseCommandLine(QCoreApplication::arguments());
    if (commandLine.outcome != CommandLine::Run) {
        report(commandLine.text);
        return ExitBadArguments;
    }
    installLogging(commandLine.options.logLevel);
    raiseDescriptorLimit();
    RestartingHost host(commandLine.options);
    return host.run();
}
