// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

// inputhost's command line, one argument a line, and the configuration that it gives.

#include "fuzz/fuzztarget.h"
#include "host/configuration.h"
#include "host/options.h"

#include <QtCore/QCoreApplication>

using namespace host;

void initialise()
{
    static int argc = 1;
    static char name[] = "inputhost";
    static char *argv[] = {name, nullptr};
    static const QCoreApplication application(argc, argv);
}

void fuzz(QByteArrayView input)
{
    const QString text = QString::fromUtf8(input);
    CommandLine line = parseCommandLine(QStringList(QStringLiteral("inputhost"))
                                        + text.split(QLatin1Char('\n')));
    if (line.outcome != CommandLine::Run) {
        require(!line.text.isEmpty(), QStringLiteral("a reason or an answer"));
        return;
    }

    Options &options = line.options;
    require(options.format.maxMessage > 0, QStringLiteral("message limit"));
    require(options.maxUnfinished > 0, QStringLiteral("limit of unfinished messages"));
    require(options.statusEverySeconds >= 0 && options.exitAfter >= 0, QStringLiteral("numbers"));
    require(QStringList(
                    {QStringLiteral("debug"), QStringLiteral("info"), QStringLiteral("warning")})
                    .contains(options.logLevel),
            QStringLiteral("log level"));

    options.configFile.clear(); // the input could name any file of the machine
    ConfigurationReader reader(options);
    require(reader.read(), QStringLiteral("settings make a configuration"));
    const QJsonObject object = reader.configuration();
    QJsonObject expected;
    for (const auto &[key, value] : std::as_const(options.settings)) {
        require(!key.isEmpty(), QStringLiteral("keys have names"));
        expected.insert(key, value);
    }
    require(object == expected, QStringLiteral("the last setting of a key wins"));
}
