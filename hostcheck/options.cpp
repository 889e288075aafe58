// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "hostcheck/options.h"

#include <QtCore/QCommandLineParser>

namespace hostcheck {
namespace {

constexpr int LongestTimeLimitMs = 3600000;

const char Help[] = R"(Usage: hostcheck parser FILE [options]
       hostcheck parser --host COMMAND [options]
       hostcheck plugin FILE [options]

Checks what takes messages out of byte streams, or a build of the plugin.

  parser FILE     A shared object with the C function
                  size_t consume(const char *bytes, size_t size): the length of
                  the message at the front, or 0 if it is not complete.
  parser --host COMMAND
                  A host program; {port} in the command is a free port of
                  127.0.0.1, on which it has to listen. It prints a JSON object a
                  line for each message, with the members "port" (the device's)
                  and "text" or "base64", as inputhost does.
  plugin FILE     A build of libtcpinputplugin2.

Traffic, for parser; at least one:
  --stream FILE      Recorded bytes of one device. May be repeated.
  --traffic FILE     A description of what a device sends. May be repeated.
  --framing FRAMING  Where messages end in the streams: lines; length 1|2|4
                     big|little [all]; fixed BYTES; marks START END ESCAPE.
  --messages FILE    The lengths of the messages in the stream, as numbers.

Options:
  --only REGEX       Only checks whose name matches.
  --junit FILE       The results as a JUnit file, too.
  --time-limit MS    Processor time of one call of a parser, 1000 by default; how
                     long a host may take to print a message, 10000 by default;
                     how long a plugin may take for what it has to do, 20000.
  --list             For plugin: the names of the checks.
  -h, --help         This text.
  -v, --version      The version.

Exit status: 0 all is well, 1 faults were found, 2 not all could be checked.
)";

//! The options, as the parser of command lines knows them.
struct Definitions
{
    const QCommandLineOption host{QStringLiteral("host"), {}, QStringLiteral("COMMAND")};
    const QCommandLineOption stream{QStringLiteral("stream"), {}, QStringLiteral("FILE")};
    const QCommandLineOption traffic{QStringLiteral("traffic"), {}, QStringLiteral("FILE")};
    const QCommandLineOption framing{QStringLiteral("framing"), {}, QStringLiteral("FRAMING")};
    const QCommandLineOption messages{QStringLiteral("messages"), {}, QStringLiteral("FILE")};
    const QCommandLineOption only{QStringLiteral("only"), {}, QStringLiteral("REGEX")};
    const QCommandLineOption junit{QStringLiteral("junit"), {}, QStringLiteral("FILE")};
    const QCommandLineOption timeLimit{QStringLiteral("time-limit"), {}, QStringLiteral("MS")};
    const QCommandLineOption single{QStringLiteral("single"), {}, QStringLiteral("CHECK")};
    const QCommandLineOption list{QStringLiteral("list")};
    const QCommandLineOption help{{QStringLiteral("h"), QStringLiteral("help")}};
    const QCommandLineOption version{{QStringLiteral("v"), QStringLiteral("version")}};

    void addTo(QCommandLineParser &parser) const
    {
        parser.addOptions({host, stream, traffic, framing, messages, only, junit, timeLimit, single,
                           list, help, version});
    }
};

int defaultTimeLimitMs(Options::Subject subject)
{
    switch (subject) {
    case Options::Parser:
        return 1000;
    case Options::HostProgram:
        return 10000;
    case Options::Plugin:
        return 20000;
    }
    return 0;
}

CommandLine refuse(const QString &text)
{
    return {CommandLine::Refuse, {}, text};
}

// Empty, or what is wrong with these options.
QString complaintAbout(const Options &options, const QStringList &positional)
{
    if (!options.only.isValid())
        return QStringLiteral("--only: %1").arg(options.only.errorString());
    if (options.timeLimitMs < 1 || options.timeLimitMs > LongestTimeLimitMs)
        return QStringLiteral("--time-limit takes milliseconds from 1 to %1")
                .arg(LongestTimeLimitMs);
    const int files = options.subject == Options::HostProgram || options.listsChecks ? 1 : 2;
    if (positional.size() != files)
        return QStringLiteral("one shared object, or one --host, is to be checked");
    if (options.subject == Options::Plugin)
        return {};
    if (options.streams.isEmpty() && options.descriptions.isEmpty())
        return QStringLiteral("no traffic: --stream or --traffic");
    if (!options.framing.isEmpty() && !options.lengthsFile.isEmpty())
        return QStringLiteral("--framing or --messages, not both");
    if (!options.lengthsFile.isEmpty() && options.streams.size() != 1)
        return QStringLiteral("--messages belongs to one --stream");
    return {};
}

} // namespace

CommandLine parseCommandLine(const QStringList &arguments)
{
    const Definitions known;
    QCommandLineParser parser;
    known.addTo(parser);
    if (!parser.parse(arguments))
        return refuse(parser.errorText());
    if (parser.isSet(known.help))
        return {CommandLine::Inform, {}, QLatin1String(Help)};
    if (parser.isSet(known.version))
        return {CommandLine::Inform,
                {},
                QStringLiteral("hostcheck %1\n").arg(QLatin1String(HOSTCHECK_VERSION))};

    const QStringList positional = parser.positionalArguments();
    const QString subject = positional.value(0);
    Options options;
    if (subject == QLatin1String("plugin"))
        options.subject = Options::Plugin;
    else if (subject == QLatin1String("parser"))
        options.subject = parser.isSet(known.host) ? Options::HostProgram : Options::Parser;
    else
        return refuse(QStringLiteral("parser or plugin?"));
    options.file = positional.value(1);
    options.command = parser.value(known.host);
    options.streams = parser.values(known.stream);
    options.descriptions = parser.values(known.traffic);
    options.framing = parser.value(known.framing);
    options.lengthsFile = parser.value(known.messages);
    options.timeLimitMs = defaultTimeLimitMs(options.subject);
    if (parser.isSet(known.timeLimit))
        options.timeLimitMs = parser.value(known.timeLimit).toInt();
    options.only.setPattern(parser.value(known.only));
    options.junitFile = parser.value(known.junit);
    options.single = parser.value(known.single);
    options.listsChecks = options.subject == Options::Plugin && parser.isSet(known.list);

    const QString complaint = complaintAbout(options, positional);
    if (!complaint.isEmpty())
        return refuse(complaint);
    return {CommandLine::Run, options, {}};
}

} // namespace hostcheck
