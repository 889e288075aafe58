// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "simulator/options.h"

#include "simulator/help.h"
#include "simulator/optionreader.h"

#include <QtCore/QCommandLineParser>
#include <QtCore/QCoreApplication>

namespace simulator {
namespace {

constexpr quint64 MaxConnections = 10'000'000;
constexpr int MaxMessageBytes = 64 * 1024 * 1024;
constexpr int MinRecordBytes = 512; // the limits that OpenSSL has for --record-size
constexpr int MaxRecordBytes = 16384;

constexpr Choice<MessageSyntax> MessageSyntaxes[] = {{"text", MessageSyntax::Text},
                                                     {"plain", MessageSyntax::Plain},
                                                     {"hex", MessageSyntax::Hex},
                                                     {"whole", MessageSyntax::Whole}};
constexpr Choice<Segments> SegmentModes[] = {{"whole", Segments::Whole},
                                             {"byte", Segments::Byte},
                                             {"random", Segments::Random},
                                             {"blocks", Segments::Blocks}};
constexpr Choice<CloseMode> CloseModes[] = {{"close", CloseMode::Close},
                                            {"half-close", CloseMode::HalfClose},
                                            {"abort", CloseMode::Abort},
                                            {"stay", CloseMode::Stay}};
constexpr Choice<Fault> Faults[] = {{"silent", Fault::Silent},
                                    {"garbage", Fault::Garbage},
                                    {"abort-handshake", Fault::AbortHandshake},
                                    {"close-notify-only", Fault::CloseNotifyOnly},
                                    {"close-without-reading", Fault::CloseWithoutReading}};
constexpr Choice<TlsVersion> TlsVersions[] = {{"1.2", TlsVersion::OneTwo},
                                              {"1.3", TlsVersion::OneThree}};
constexpr Choice<OutputFormat> OutputFormats[] = {{"text", OutputFormat::Text},
                                                  {"json", OutputFormat::Json}};

void readOptions(OptionReader &reader, Options &options)
{
    reader.string("host", options.host);
    reader.number<quint16>("port", options.port, 1);
    reader.sources(options.sources);
    reader.number<quint64>("connections", options.connections, 1, MaxConnections);
    reader.number<quint64>("parallel", options.parallel, 0);
    reader.number<quint64>("opening", options.opening, 0);
    reader.number<double>("connect-rate", options.connectRate, 0);
    reader.number<int>("connect-timeout-ms", options.connectTimeoutMs, 1);
    reader.number<quint64>("messages", options.messages, 0);
    reader.number<quint64>("reconnect", options.reconnect, 0);
    reader.number<int>("size", options.size, 0, MaxMessageBytes);
    options.countsMessages = reader.isSet("messages");
    reader.framing(options.framing);
    if (options.framing.kind() == Framing::Fixed && !reader.isSet("size"))
        options.size = static_cast<int>(options.framing.longestPayload());
    reader.string("messages-from", options.messagesFrom);
    reader.choice("messages-as", options.messagesAs, MessageSyntaxes);
    reader.messageTemplate(options.messageTemplate);
    reader.number<double>("rate", options.rate, 0);
    reader.choice("segments", options.segments, SegmentModes);
    reader.number<quint32>("seed", options.seed, 0);
    reader.pause(options.pauseMinMs, options.pauseMaxMs);
    reader.choice("close", options.close, CloseModes);
    reader.number<int>("linger-ms", options.lingerMs, 0);
    reader.choice("fault", options.fault, Faults);
    options.tls.enabled = reader.isSet("tls");
    reader.string("ca", options.tls.caFile);
    reader.string("cert", options.tls.certFile);
    reader.string("key", options.tls.keyFile);
    reader.choice("tls-version", options.tls.version, TlsVersions);
    options.tls.insecure = reader.isSet("insecure");
    options.tls.resume = reader.isSet("resume");
    reader.number<int>("record-size", options.tls.recordSize, MinRecordBytes, MaxRecordBytes);
    reader.string("server-name", options.tls.serverName);
    reader.string("script", options.scriptFile);
    reader.string("replay", options.replayFile);
    reader.speed(options.speed);
    reader.mutation(options.mutateSeed);
    reader.choice("output", options.output, OutputFormats);
    options.quiet = reader.isSet("quiet");
    if (reader.isSet("progress") && reader.isSet("no-progress"))
        reader.fail(QStringLiteral("--progress and --no-progress contradict each other"));
    if (reader.isSet("progress") || reader.isSet("no-progress"))
        options.progress = reader.isSet("progress");
    options.checksum = !reader.isSet("no-checksum");
}

// A recording says what devices do.
void checkReplay(OptionReader &reader, const Options &options)
{
    if (reader.isSet("replay") && options.replayFile.isEmpty())
        reader.fail(QStringLiteral("--replay wants a file"));
    for (const char *name : {"speed", "mutate"}) {
        if (reader.isSet(name) && !reader.isSet("replay"))
            reader.fail(QStringLiteral("--%1 needs --replay").arg(QLatin1String(name)));
    }
    for (const char *name : {"connections", "connect-rate", "messages", "messages-from", "template",
                             "script", "reconnect", "size", "framing", "rate", "segments", "seed",
                             "pause-ms", "close", "linger-ms", "fault"}) {
        if (reader.isSet(name) && reader.isSet("replay"))
            reader.fail(QStringLiteral("--%1 does not go with --replay").arg(QLatin1String(name)));
    }
}

// A script says what each device does.
void checkScript(OptionReader &reader, const Options &options)
{
    if (!reader.isSet("script"))
        return;
    if (options.scriptFile.isEmpty())
        reader.fail(QStringLiteral("--script wants a file"));
    for (const char *name : {"messages", "messages-from", "template", "reconnect", "size", "rate",
                             "pause-ms", "close", "linger-ms", "fault"}) {
        if (reader.isSet(name))
            reader.fail(QStringLiteral("--%1 does not go with --script").arg(QLatin1String(name)));
    }
    // Its pauses are between the writes.
    if (options.segments == Segments::Random || options.segments == Segments::Blocks)
        reader.fail(QStringLiteral("--script needs --segments whole or byte"));
}

// Every device takes the lines as they come, in one connection.
void checkInput(OptionReader &reader, const Options &options)
{
    if (!options.readsInput())
        return;
    for (const char *name : {"messages", "reconnect", "parallel", "resume", "fault"}) {
        if (reader.isSet(name))
            reader.fail(QStringLiteral("--%1 does not go with --messages-from -")
                                .arg(QLatin1String(name)));
    }
    if (options.segments == Segments::Random || options.segments == Segments::Blocks)
        reader.fail(QStringLiteral("--messages-from - needs --segments whole or byte"));
}

// What a placeholder stands for is not known before it is sent.
void checkTemplate(OptionReader &reader, const Options &options)
{
    if (!options.messageTemplate || options.messageTemplate->hasPlaceholders())
        return;
    const qsizetype size = options.messageTemplate->payload({}).size();
    if (!options.framing.fits(size))
        reader.fail(QStringLiteral("--template: %1 bytes do not fit the framing").arg(size));
}

// Where the payloads come from.
void checkMessages(OptionReader &reader, const Options &options)
{
    if (reader.isSet("messages-from") && options.messagesFrom.isEmpty())
        reader.fail(QStringLiteral("--messages-from wants a file"));
    if (reader.isSet("messages-as") && !reader.isSet("messages-from"))
        reader.fail(QStringLiteral("--messages-as needs --messages-from"));
    for (const char *name : {"messages-from", "template"}) {
        if (reader.isSet(name) && reader.isSet("size"))
            reader.fail(QStringLiteral("--size does not go with --%1").arg(QLatin1String(name)));
        if (reader.isSet(name) && options.fault == Fault::Garbage)
            reader.fail(QStringLiteral("--fault garbage does not go with --%1")
                                .arg(QLatin1String(name)));
    }
    const bool hasLines = reader.isSet("messages-from");
    if (options.messageTemplate && options.messageTemplate->hasLine() && !hasLines)
        reader.fail(QStringLiteral("--template: {line} needs --messages-from"));
    if (options.messageTemplate && !options.messageTemplate->hasLine() && hasLines)
        reader.fail(QStringLiteral("--template has no {line}, which --messages-from is for"));
    checkTemplate(reader, options);
    if (options.size > options.framing.longestPayload())
        reader.fail(QStringLiteral("--size: %1 bytes do not fit the framing, which takes %2")
                            .arg(options.size)
                            .arg(options.framing.longestPayload()));
}

// Checks options that are right by themselves but wrong together.
void checkTogether(OptionReader &reader, const Options &options)
{
    checkReplay(reader, options);
    checkMessages(reader, options);
    checkScript(reader, options);
    checkInput(reader, options);
    const bool isCounted = options.messagesFrom.isEmpty() || options.countsMessages;
    if (isCounted && options.reconnect > 0 && options.reconnect >= options.messages)
        reader.fail(QStringLiteral("--reconnect needs more --messages than reconnections"));
    for (const char *name :
         {"ca", "cert", "key", "tls-version", "insecure", "resume", "record-size", "server-name"}) {
        if (reader.isSet(name) && !options.tls.enabled)
            reader.fail(QStringLiteral("--%1 needs --tls").arg(QLatin1String(name)));
    }
    if (options.tls.certFile.isEmpty() != options.tls.keyFile.isEmpty())
        reader.fail(QStringLiteral("--cert and --key need each other"));
    if (options.tls.resume && options.close == CloseMode::Stay)
        reader.fail(QStringLiteral("--resume needs a first device that ends: not --close stay"));
    if (options.fault >= Fault::AbortHandshake && !options.tls.enabled)
        reader.fail(QStringLiteral("--fault %1 needs --tls").arg(reader.text("fault")));
    if (options.fault == Fault::Garbage && options.size == 0)
        reader.fail(QStringLiteral("--fault garbage needs a --size"));
}

} // namespace

ParsedOptions parseOptions(const QStringList &arguments)
{
    QCommandLineParser parser;
    parser.setApplicationDescription(description());
    // Not addHelpOption(): that one would also offer the options that Qt has for all programs.
    const QCommandLineOption help({QStringLiteral("h"), QStringLiteral("help")},
                                  QStringLiteral("Displays this help."));
    parser.addOption(help);
    const QCommandLineOption version = parser.addVersionOption();
    parser.addOptions(knownOptions());

    ParsedOptions parsed;
    if (!parser.parse(arguments)) {
        parsed.error = parser.errorText();
    } else if (parser.isSet(help)) {
        parsed.text = parser.helpText();
    } else if (parser.isSet(version)) {
        parsed.text = QCoreApplication::applicationName() + QLatin1Char(' ')
                + QCoreApplication::applicationVersion() + QLatin1Char('\n');
    } else if (!parser.positionalArguments().isEmpty()) {
        parsed.error = QStringLiteral("Unexpected argument: %1")
                               .arg(parser.positionalArguments().constFirst());
    } else {
        OptionReader reader(parser);
        readOptions(reader, parsed.options);
        checkTogether(reader, parsed.options);
        parsed.error = reader.error();
    }
    return parsed;
}

} // namespace simulator
