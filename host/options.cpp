// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "host/options.h"

#include "host/sinks/nats/subjecttemplate.h"

#include <QtCore/QCommandLineParser>
#include <QtCore/QCoreApplication>
#include <QtCore/QJsonArray>
#include <QtCore/QJsonDocument>

#include <algorithm>
#include <limits>
#include <optional>
#include <utility>

namespace host {
namespace {

using inputkit::EntryPoint;

// Enough for 64 messages of the default maximum, and for thousands of usual ones.
constexpr qint64 DefaultMaxUnfinished = 64 * 1024 * 1024;

const char Notes[] = R"(
Messages go to standard output or to a file, everything else to standard error.
Where the output is slow, full or away, messages wait, and in the end devices
do: with "offsets" and "ends", what is not safe yet stays in the plugin, where
"limits" count it.

Outputs:
  json   One object a line: time, plugin, source, peer, port, client, task,
         bytes, and text (valid UTF-8) or base64. "partial": true marks the
         beginning of a message whose end never came. It is printed when the
         connection ends.
  raw    The messages with the framing that they came with (lines end with LF,
         though); no partial ones.
  count  Nothing but, on exit, "messages N bytes B connections C". Partial
         messages are not counted. C: client ids seen so far.
  none   Nothing.
  json:FILE, raw:FILE
         The same in a file, which is continued. While the disk is full, the
         program waits.
  sqlite:FILE
         An SQLite database, which is continued. It can be read meanwhile. Old
         messages are removed if --keep says so.
  postgresql:CONNINFO
         A PostgreSQL database. CONNINFO is a connection string of libpq, as
         "host=db dbname=traffic" or "//user@db/traffic". While the server is
         away, the program waits. Put the password into ~/.pgpass: others can see
         the command line.
  nats://[USER:PASSWORD@]HOST[:PORT][,HOST[:PORT]...]/STREAM
         Into a stream of JetStream, each message once and in the order of its
         connection. While the server is away, messages wait. A password is
         better kept in a file: --nats-credentials.
  Stores (sqlite, postgresql, nats) have each message once. They need "offsets"
  and "ends".

Status for people and programs, with --http:
  /             a page for people
  /history.json the rates of the last hour
  /metrics      for Prometheus; --metrics-file writes the same to a file
  /ready        200, or 503 and why no device should be sent here
  /live         200, or 503 and which thread stands still
  /status.json  all of it, and the connections: ?offset= &limit= &sort= &search=

Placeholders of --nats-subject: {connection} (its number in this run), {peer},
{port}, {source}, {client}, {plugin}, {epoch} (32 digits that tell this run from
others) and {stream}.

Signals:
  SIGINT, SIGTERM  Stop, print what is still coming, exit; with --drain, first
                   let the devices go. The same signal once more ends the program
                   at once.
  SIGHUP           Read the configuration again and go on with a new plugin, with
                   no moment in which nobody listens. The devices of the old one
                   are told that nothing follows; they are read until they have
                   closed. If this fails, nothing changes. If only files of
                   certificates and keys have changed, no connection is closed.
  SIGUSR1          Counters and status to standard error, with
                   --status-connections also the connections.
  SIGUSR2          Go on with a new file: the output's was renamed.

Exit codes:
  0  stopped by a signal or after the messages asked for
  2  bad arguments
  3  library missing, not loadable, without its entry points, or of a release
     that does not fit
  4  configuration unreadable, not JSON, or not an object; or "ssl" verifies
     devices without naming a CA; with --check-config, keys or values are wrong
  5  the plugin refused to start
  6  the plugin started but does not listen: the port is in use or only for
     root, or the address is not this machine's
  7  the output cannot be written, or not all that was read was safe at the end
  8  the file for --record cannot be written
  9  the address for --http cannot be listened on, or the file for --metrics-file
     cannot be written
  10 with --check-config: certificates or keys do not work
)";

//! The options as the parser knows them.
struct Definitions
{
    const QCommandLineOption plugin{
            QStringLiteral("plugin"),
            QStringLiteral("The library to load. Default: the one that belongs to this program, or "
                           "else what the system finds under the name tcpinputplugin2."),
            QStringLiteral("FILE")};
    const QCommandLineOption entry{
            QStringLiteral("entry"),
            QStringLiteral("How to get plugins from the library: create (default) or "
                           "registerPlugin."),
            QStringLiteral("NAME"), QStringLiteral("create")};
    const QCommandLineOption config{
            QStringLiteral("config"),
            QStringLiteral(
                    "The plugin's configuration, a JSON object; - reads standard input. "
                    "Default: an empty object. \"offsets\", \"prompt\", \"ends\" and "
                    "\"strict\" are true unless they are given. \"limits\" are 1 MiB a "
                    "connection, 128 MiB in all and 60 s stalled unless it is given. In "
                    "\"ssl\", \"Chain\" is true, \"KeyAlgorithm\" is \"auto\" and \"engine\" "
                    "is \"own\" unless they are given; if it verifies devices, it must name a CA."),
            QStringLiteral("FILE")};
    const QCommandLineOption set{
            QStringLiteral("set"),
            QStringLiteral("Sets one key of the configuration. VALUE is JSON, or else taken as "
                           "text, unless it begins with {, [ or \". May be repeated."),
            QStringLiteral("KEY=VALUE")};
    const QCommandLineOption checkConfig{
            QStringLiteral("check-config"),
            QStringLiteral("Says what is wrong with the configuration, its certificates and keys, "
                           "and whether its port can be had, and exits.")};
    const QCommandLineOption printConfig{
            QStringLiteral("print-config"),
            QStringLiteral("Prints what is in force and where each value comes from, and exits.")};
    const QCommandLineOption printSchema{
            QStringLiteral("print-schema"),
            QStringLiteral("Prints a JSON Schema of the configuration, and exits.")};
    const QCommandLineOption id{
            QStringLiteral("id"),
            QStringLiteral("The plugin's id in records and log lines. Default: tcp."),
            QStringLiteral("ID"), QStringLiteral("tcp")};
    const QCommandLineOption framing{
            QStringLiteral("framing"),
            QStringLiteral("Where messages end: lines (default; LF or CR LF), length (after a "
                           "4-byte big-endian byte count), none (whatever arrives together)."),
            QStringLiteral("FRAMING"), QStringLiteral("lines")};
    const QCommandLineOption maxMessage{
            QStringLiteral("max-message"),
            QStringLiteral("A longer message is skipped, with a warning. Default: 1048576. Without "
                           "meaning for --framing none."),
            QStringLiteral("BYTES"), QStringLiteral("1048576")};
    const QCommandLineOption maxUnfinished{
            QStringLiteral("max-unfinished"),
            QStringLiteral(
                    "Unfinished messages of all connections together: beyond this the "
                    "longest one is given up, with a warning. Default: 67108864, or "
                    "--max-message if that is more. Without meaning if \"offsets\" is false."),
            QStringLiteral("BYTES")};
    const QCommandLineOption output{
            QStringLiteral("output"),
            QStringLiteral("json (default), json:FILE, raw, raw:FILE, count, none, sqlite:FILE, "
                           "postgresql:CONNINFO or nats://HOST/STREAM; see below."),
            QStringLiteral("OUTPUT"), QStringLiteral("json")};
    const QCommandLineOption keep{
            QStringLiteral("keep"),
            QStringLiteral("For sqlite: removes the oldest messages, by age (30d; also h, min, s), "
                           "by the database's size (10GB; also MB), or by both (30d,10GB). "
                           "Default: keeps all."),
            QStringLiteral("LIMIT")};
    const QCommandLineOption saveWithin{
            QStringLiteral("save-within"),
            QStringLiteral("How long to wait at the end for messages that are not safe yet: for "
                           "which the pipe has no room, for example. At least 1. Default: 60."),
            QStringLiteral("SECONDS"), QStringLiteral("60")};
    const QCommandLineOption natsSubject{
            QStringLiteral("nats-subject"),
            QStringLiteral("The subject of each message. Default: dev.{connection}."),
            QStringLiteral("TEMPLATE"), QStringLiteral("dev.{connection}")};
    const QCommandLineOption natsCreate{
            QStringLiteral("nats-create"),
            QStringLiteral("Creates the stream if it is missing, on one server or on three. "
                           "Default: waits for it."),
            QStringLiteral("R1|R3")};
    const QCommandLineOption natsTlsCa{
            QStringLiteral("nats-tls-ca"),
            QStringLiteral("Speaks TLS; the server's certificate must come from a CA in the file."),
            QStringLiteral("FILE")};
    const QCommandLineOption natsTlsCert{
            QStringLiteral("nats-tls-cert"),
            QStringLiteral("Speaks TLS, and shows the server this certificate."),
            QStringLiteral("FILE")};
    const QCommandLineOption natsTlsKey{QStringLiteral("nats-tls-key"),
                                        QStringLiteral("The certificate's private key."),
                                        QStringLiteral("FILE")};
    const QCommandLineOption natsCredentials{
            QStringLiteral("nats-credentials"),
            QStringLiteral("The user's token and key, as NATS tools write them."),
            QStringLiteral("FILE")};
    const QCommandLineOption logLevel{
            QStringLiteral("log-level"),
            QStringLiteral("The least important log lines to show: debug, info (default) or "
                           "warning. The plugin asks for it, too."),
            QStringLiteral("LEVEL"), QStringLiteral("info")};
    const QCommandLineOption logFormat{
            QStringLiteral("log-format"),
            QStringLiteral(
                    "How log lines look: text (default), json (an object a line), or journal "
                    "(text with the priorities of systemd's journal)."),
            QStringLiteral("FORMAT"), QStringLiteral("text")};
    const QCommandLineOption statusEvery{
            QStringLiteral("status-every"),
            QStringLiteral("Counters and status to standard error, again and again."),
            QStringLiteral("SECONDS")};
    const QCommandLineOption statusConnections{
            QStringLiteral("status-connections"),
            QStringLiteral("Status has two lines for each connection, too.")};
    const QCommandLineOption exitAfter{
            QStringLiteral("exit-after"),
            QStringLiteral("Exits after N messages; nothing is printed after the last of them."),
            QStringLiteral("N")};
    const QCommandLineOption drain{
            QStringLiteral("drain"),
            QStringLiteral("At SIGINT, SIGTERM and SIGHUP, tells the devices within this time, one "
                           "after the other, that nothing follows, and reads until they have "
                           "closed, at most five seconds longer. Default: SIGINT and SIGTERM close "
                           "all connections, SIGHUP tells all devices at once."),
            QStringLiteral("SECONDS")};
    const QCommandLineOption http{
            QStringLiteral("http"),
            QStringLiteral("Answers requests for the program's status at this address, which is "
                           "127.0.0.1 if only a port is given; port 0 is one that is free. "
                           "Whoever can connect can read it. Default: nobody can."),
            QStringLiteral("[ADDRESS:]PORT")};
    const QCommandLineOption metricsFile{
            QStringLiteral("metrics-file"),
            QStringLiteral("Writes the metrics to this file every five seconds, and removes it at "
                           "the end."),
            QStringLiteral("FILE")};
    const QCommandLineOption record{
            QStringLiteral("record"),
            QStringLiteral("Records what connections bring, for devicesim --replay and devicecat. "
                           "A recording that exists is continued. Needs \"offsets\" and \"ends\"."),
            QStringLiteral("FILE")};
    const QCommandLineOption recordSize{
            QStringLiteral("record-size"),
            QStringLiteral("Renames a recording of that size to FILE.1, FILE.2 and so on, and "
                           "begins the next one. Default: one file."),
            QStringLiteral("BYTES")};
    const QCommandLineOption recordKeep{
            QStringLiteral("record-keep"),
            QStringLiteral("Of those, keeps the newest N. Default: all."), QStringLiteral("N")};
    const QCommandLineOption recordNoPayload{
            QStringLiteral("record-no-payload"),
            QStringLiteral("Records how many bytes came and when, but not the bytes. Such a "
                           "recording cannot be replayed.")};
    const QCommandLineOption recordCompress{QStringLiteral("record-compress"),
                                            QStringLiteral("Compresses the recording.")};
    const QCommandLineOption help{{QStringLiteral("h"), QStringLiteral("help")},
                                  QStringLiteral("Shows this text.")};
    const QCommandLineOption version{{QStringLiteral("v"), QStringLiteral("version")},
                                     QStringLiteral("Shows the version.")};

    void addTo(QCommandLineParser &parser) const
    {
        parser.addOptions({plugin,         entry,       config,        set,
                           checkConfig,    printConfig, printSchema,   id,
                           framing,        maxMessage,  maxUnfinished, output,
                           keep,           saveWithin,  natsSubject,   natsCreate,
                           natsTlsCa,      natsTlsCert, natsTlsKey,    natsCredentials,
                           logLevel,       logFormat,   statusEvery,   statusConnections,
                           exitAfter,      drain,       http,          metricsFile,
                           record,         recordSize,  recordKeep,    recordNoPayload,
                           recordCompress, help,        version});
    }
};

//! Reads values, and keeps the first complaint.
class ValueReader
{
public:
    explicit ValueReader(const QCommandLineParser &commandLine) : parser(commandLine) {}

    QString error() const { return complaint; }

    void complain(const QString &text)
    {
        if (complaint.isEmpty())
            complaint = text;
    }

    // The value whose name was given. Another name is an error; then the first value is returned.
    template<class Value>
    Value choice(const QCommandLineOption &option,
                 std::initializer_list<std::pair<const char *, Value>> choices)
    {
        const QString text = parser.value(option);
        for (const auto &[name, value] : choices) {
            if (text == QLatin1String(name))
                return value;
        }
        QStringList names;
        for (const auto &[name, value] : choices)
            names.append(QLatin1String(name));
        refuse(option, text, QStringLiteral("one of ") + names.join(QLatin1String(", ")));
        return choices.begin()->second;
    }

    // From 1 up to the maximum; 0 if the option was not given and has no default.
    qint64 number(const QCommandLineOption &option, qint64 maximum)
    {
        const QString text = parser.value(option);
        if (text.isEmpty() && !parser.isSet(option))
            return 0;

        bool ok = false;
        const qint64 value = text.toLongLong(&ok);
        if (!ok || value < 1 || value > maximum)
            refuse(option, text, QStringLiteral("a number from 1 to %1").arg(maximum));
        return value;
    }

private:
    void refuse(const QCommandLineOption &option, const QString &text, const QString &wanted)
    {
        complain(QStringLiteral("Invalid value for --%1: '%2'. It takes %3.")
                         .arg(option.names().last(), text, wanted));
    }

    const QCommandLineParser &parser;
    QString complaint;
};

// Undefined if the text is not exactly one JSON value.
QJsonValue json(const QString &text)
{
    // A document is an array or an object, so put the value into an array.
    const QByteArray array = '[' + text.toUtf8() + ']';
    const QJsonArray values = QJsonDocument::fromJson(array).array();
    return values.size() == 1 ? values.first() : QJsonValue(QJsonValue::Undefined);
}

// No key's plain text begins like this. If such a text is not JSON, a brace or a quote is missing,
// or the shell has removed it.
bool isMeantAsJson(const QString &text)
{
    return !text.isEmpty() && QLatin1String("{[\"").contains(text.front());
}

QList<std::pair<QString, QJsonValue>> readSettings(const QStringList &texts, ValueReader &reader)
{
    QList<std::pair<QString, QJsonValue>> settings;
    for (const QString &text : texts) {
        const qsizetype separator = text.indexOf(QLatin1Char('='));
        if (separator < 1) {
            reader.complain(QStringLiteral("--set wants KEY=VALUE, not '%1'.").arg(text));
            continue;
        }
        const QString key = text.left(separator);
        const QString value = text.mid(separator + 1);
        const QJsonValue parsed = json(value);
        if (parsed.isUndefined() && isMeantAsJson(value))
            reader.complain(QStringLiteral("--set %1: this is not JSON: %2").arg(key, value));
        settings.append({key, parsed.isUndefined() ? QJsonValue(value) : parsed});
    }
    return settings;
}

inputkit::RecordingOptions readRecording(const QCommandLineParser &parser, const Definitions &known,
                                         ValueReader &reader)
{
    inputkit::RecordingOptions options;
    options.file = parser.value(known.record);
    options.fileBytes = reader.number(known.recordSize, std::numeric_limits<qint64>::max());
    options.keep =
            static_cast<int>(reader.number(known.recordKeep, std::numeric_limits<int>::max()));
    options.withPayload = !parser.isSet(known.recordNoPayload);
    options.compress = parser.isSet(known.recordCompress);
    if (options.file.isEmpty() && parser.isSet(known.record))
        reader.complain(QStringLiteral("--record wants a file."));
    for (const QCommandLineOption &option :
         {known.recordSize, known.recordKeep, known.recordNoPayload, known.recordCompress}) {
        if (parser.isSet(option) && !parser.isSet(known.record))
            reader.complain(QStringLiteral("--%1 needs --record.").arg(option.names().last()));
    }
    if (options.keep > 0 && options.fileBytes == 0)
        reader.complain(QStringLiteral("--record-keep needs --record-size."));
    return options;
}

Keep readKeep(const QString &text, OutputOptions::Kind output, ValueReader &reader)
{
    const std::optional<Keep> keep = parseKeep(text);
    if (output != OutputOptions::Sqlite)
        reader.complain(QStringLiteral("--keep needs --output sqlite:FILE."));
    else if (!keep)
        reader.complain(QStringLiteral("Invalid value for --keep: '%1'. It takes an age as 30d, a "
                                       "size as 10GB, or both as 30d,10GB.")
                                .arg(text));
    return keep.value_or(Keep());
}

// What stands behind the colon is not shown: it may have a password.
OutputOptions readOutput(const QCommandLineParser &parser, const Definitions &known,
                         ValueReader &reader)
{
    const QString text = parser.value(known.output);
    OutputOptions output;
    if (const std::optional<OutputOptions> parsed = parseOutput(text)) {
        output = *parsed;
    } else {
        const qsizetype colon = text.indexOf(QLatin1Char(':'));
        const QString shown = colon < 0 ? text : text.left(colon) + QStringLiteral(":...");
        reader.complain(QStringLiteral("Invalid value for --output: '%1'. It takes one of %2.")
                                .arg(shown, knownOutputs().join(QLatin1String(", "))));
    }
    if (parser.isSet(known.keep))
        output.keep = readKeep(parser.value(known.keep), output.kind, reader);
    const QString missing = missingFor(output.kind);
    if (!missing.isEmpty())
        reader.complain(QStringLiteral("--output %1: this program was built without %2.")
                                .arg(text.section(QLatin1Char(':'), 0, 0), missing));
    return output;
}

void refuseNatsOptions(const QCommandLineParser &parser, const Definitions &known,
                       ValueReader &reader)
{
    for (const QCommandLineOption &option :
         {known.natsSubject, known.natsCreate, known.natsTlsCa, known.natsTlsCert, known.natsTlsKey,
          known.natsCredentials}) {
        if (parser.isSet(option))
            reader.complain(QStringLiteral("--%1 needs --output nats://HOST/STREAM.")
                                    .arg(option.names().last()));
    }
}

// Shows nothing of the address: it may hold a password.
NatsSettings readNats(const QString &target, const QCommandLineParser &parser,
                      const Definitions &known, ValueReader &reader)
{
    NatsSettings settings;
    const QString error = target.startsWith(QLatin1String("//"))
            ? readNatsAddress(target.mid(2), settings)
            : QStringLiteral("two slashes are missing");
    if (!error.isEmpty())
        reader.complain(
                QStringLiteral("Invalid value for --output nats://HOST/STREAM: %1.").arg(error));
    settings.subject = parser.value(known.natsSubject);
    const QString fault = SubjectTemplate().read(settings.subject, settings.stream, "0");
    if (!fault.isEmpty())
        reader.complain(QStringLiteral("Invalid value for --nats-subject: '%1': %2.")
                                .arg(settings.subject, fault));
    if (parser.isSet(known.natsCreate))
        settings.replicas = reader.choice<int>(known.natsCreate, {{"R1", 1}, {"R3", 3}});
    settings.caFile = parser.value(known.natsTlsCa);
    settings.certificateFile = parser.value(known.natsTlsCert);
    settings.keyFile = parser.value(known.natsTlsKey);
    settings.credentialsFile = parser.value(known.natsCredentials);
    if (settings.certificateFile.isEmpty() != settings.keyFile.isEmpty())
        reader.complain(QStringLiteral("--nats-tls-cert and --nats-tls-key need each other."));
    return settings;
}

Options::Task readTask(const QCommandLineParser &parser, const Definitions &known,
                       ValueReader &reader)
{
    Options::Task task = Options::Serve;
    for (const auto &[option, wanted] : {std::pair(&known.checkConfig, Options::CheckConfiguration),
                                         std::pair(&known.printConfig, Options::PrintConfiguration),
                                         std::pair(&known.printSchema, Options::PrintSchema)}) {
        if (!parser.isSet(*option))
            continue;
        if (task != Options::Serve)
            reader.complain(QStringLiteral(
                    "Only one of --check-config, --print-config and --print-schema can be done."));
        task = wanted;
    }
    return task;
}

MonitorOptions readMonitor(const QCommandLineParser &parser, const Definitions &known,
                           ValueReader &reader)
{
    MonitorOptions options;
    if (parser.isSet(known.http)) {
        const QString text = parser.value(known.http);
        options.http = parseWebAddress(text);
        if (!options.http)
            reader.complain(QStringLiteral("Invalid value for --http: '%1'. It takes PORT or "
                                           "ADDRESS:PORT, as 127.0.0.1:9100 or [::1]:9100.")
                                    .arg(text));
        if (!hasWebServer())
            reader.complain(
                    QStringLiteral("--http: this program was built without libmicrohttpd."));
    }
    options.metricsFile = parser.value(known.metricsFile);
    if (options.metricsFile.isEmpty() && parser.isSet(known.metricsFile))
        reader.complain(QStringLiteral("--metrics-file wants a file."));
    return options;
}

Options readOptions(const QCommandLineParser &parser, const Definitions &known, ValueReader &reader)
{
    Options options;
    options.task = readTask(parser, known, reader);
    options.pluginFile = parser.value(known.plugin);
    options.entryPoint = reader.choice<EntryPoint>(
            known.entry,
            {{"create", EntryPoint::Create}, {"registerPlugin", EntryPoint::RegisterPlugin}});
    options.configFile = parser.value(known.config);
    options.settings = readSettings(parser.values(known.set), reader);
    options.id = parser.value(known.id);
    options.format.framing = reader.choice<Framing>(
            known.framing,
            {{"lines", Framing::Lines}, {"length", Framing::Length}, {"none", Framing::None}});
    options.format.maxMessage =
            reader.number(known.maxMessage, std::numeric_limits<int>::max() / 2);
    options.maxUnfinished = reader.number(known.maxUnfinished, std::numeric_limits<qint64>::max());
    if (options.maxUnfinished == 0)
        options.maxUnfinished = std::max(DefaultMaxUnfinished, options.format.maxMessage);
    options.output = readOutput(parser, known, reader);
    if (options.output.kind == OutputOptions::Nats)
        options.output.nats =
                readNats(std::exchange(options.output.target, {}), parser, known, reader);
    else
        refuseNatsOptions(parser, known, reader);
    options.logLevel = QLatin1String(reader.choice<const char *>(
            known.logLevel, {{"debug", "debug"}, {"info", "info"}, {"warning", "warning"}}));
    options.logFormat = reader.choice<LogFormat>(known.logFormat,
                                                 {{"text", LogFormat::Text},
                                                  {"json", LogFormat::Json},
                                                  {"journal", LogFormat::Journal}});
    constexpr int mostSeconds = std::numeric_limits<int>::max() / 1000;
    options.saveWithinSeconds = static_cast<int>(reader.number(known.saveWithin, mostSeconds));
    options.statusEverySeconds = static_cast<int>(reader.number(known.statusEvery, mostSeconds));
    options.statusConnections = parser.isSet(known.statusConnections);
    options.drainSeconds = static_cast<int>(reader.number(known.drain, mostSeconds));
    options.exitAfter = reader.number(known.exitAfter, std::numeric_limits<qint64>::max());
    options.monitor = readMonitor(parser, known, reader);
    options.recording = readRecording(parser, known, reader);
    return options;
}

} // namespace

CommandLine parseCommandLine(const QStringList &arguments)
{
    const Definitions known;
    QCommandLineParser parser;
    parser.setApplicationDescription(
            QStringLiteral("Receives messages over TCP or TLS through the tcpinputplugin2 library, "
                           "and prints them."));
    known.addTo(parser);

    if (!parser.parse(arguments))
        return {CommandLine::Refuse, {}, parser.errorText()};
    if (parser.isSet(known.help))
        return {CommandLine::Inform, {}, parser.helpText() + QLatin1String(Notes)};
    if (parser.isSet(known.version)) {
        const QString version = QCoreApplication::applicationName() + QLatin1Char(' ')
                + QCoreApplication::applicationVersion() + QLatin1Char('\n');
        return {CommandLine::Inform, {}, version};
    }

    ValueReader reader(parser);
    if (!parser.positionalArguments().isEmpty())
        reader.complain(QStringLiteral("Unexpected argument '%1'.")
                                .arg(parser.positionalArguments().first()));
    const Options options = readOptions(parser, known, reader);
    if (!reader.error().isEmpty())
        return {CommandLine::Refuse, {}, reader.error()};
    return {CommandLine::Run, options, {}};
}

} // namespace host
