// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "simulator/options.h"

#include <QtCore/QCommandLineParser>
#include <QtCore/QCoreApplication>

#include <cmath>
#include <limits>
#include <optional>

namespace simulator {
namespace {

constexpr double MaxSpeed = 100;
constexpr double AsFastAsItGoes = 0; // as a speed
constexpr int MaxMessageBytes = 64 * 1024 * 1024;
constexpr quint32 MaxSources = 65536;
constexpr int MinRecordBytes = 512; // the limits that OpenSSL has for --record-size
constexpr int MaxRecordBytes = 16384;

const char *const Description = R"(
Plays remote devices: each connects to a receiving server, sends numbered messages and ends.

A message's payload is the text
    d<device>-<number> <padding>
Devices and messages are numbered from 1; the padding, letters, fills the payload up to --size
bytes. A payload that is longer than --size without any padding is sent as it is. --framing says
what surrounds it:
    lines     <payload>\n
    length    the payload's length as four bytes, most significant first, then the payload

How a device ends when everything is sent (--close):
    close       closes at once (FIN). With TLS: close_notify and FIN, then it reads until the peer
                closes, at most 5 s: closing over unread data would reset the connection.
    half-close  sends FIN (with TLS after close_notify), then waits for the peer to close
    abort       resets the connection (RST) once the peer's kernel has acknowledged everything
    stay        stays connected until --linger-ms has passed, the peer closes or a signal comes

Faulty devices (--fault); what the peer does then does not count as a failure:
    silent                 connects and sends nothing, then waits for the peer to close
    garbage                sends --size random bytes a message, without framing and without TLS
    abort-handshake        resets the connection after its TLS ClientHello
    close-notify-only      ends TLS with close_notify and keeps TCP open
    close-without-reading  closes without having read what the peer sent after the handshake

SIGUSR1 writes a line with the numbers so far to standard error.
A recording of inputhost --record is played by --replay: each recorded connection is a device, which
connects at its time, sends what came together at its time, and ends as recorded: a reset as reset, any
other end by closing. The file is read into memory as a whole. --speed says how fast; with max nothing
waits, and --parallel or --opening may be needed. --mutate changes the bytes: of eight writes, by chance,
one has a bit flipped, one loses a byte, one has a byte twice, one is sent as two, four stay.

A signal (SIGINT, SIGTERM) ends the run: devices finish the message they have begun and close. A
second one, or two seconds, makes them close at once.

At the end a report says of each connection what the kernel accepted of it, and how it ended:
    closed, reset  by the device
    unanswered     by the device: it had sent its FIN and waited for the peer's in vain
    abandoned      by the device: after a signal it could not end properly in time
    peer-closed    by the peer, when everything was sent
    failed         not connected, or ended by the peer before everything was sent
With --output json it is one object: "connections" is an array of objects with device, connection,
localAddress, localPort, messages, bytes, sha1, opened, resumed, failed, end, error, startMs, openMs,
endMs (milliseconds since the start); "summary" has opened, resumed, failed, messages, bytes, elapsedMs,
interrupted.

Examples:
    devicesim --messages 10
    devicesim --connections 3000 --parallel 50 --messages 20 --rate 5 --close half-close
    devicesim --framing length --segments random --seed 7 --pause-ms 0-20 --messages 1000
    devicesim --tls --ca ca.pem --cert device.pem --key device.key --server-name receiver.example

Exit status: 0 everything was sent; 1 a connection failed or was cut short; 2 wrong command line or
unusable file.)";

template<class T>
struct Choice
{
    const char *name;
    T value;
};

constexpr Choice<Framing> Framings[] = {{"lines", Framing::Lines}, {"length", Framing::Length}};
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

QString tr(const char *text)
{
    return QString::fromLatin1(text);
}

// The options the program knows, in the order of --help.
QList<QCommandLineOption> knownOptions()
{
    const struct
    {
        const char *name;
        const char *description;
        const char *value = "";
    } table[] = {
            {"host", "Where to connect: address or name. Default: 127.0.0.1.", "host"},
            {"port", "Default: 7446.", "port"},
            {"bind",
             "Source address, or a range FIRST-LAST of IPv4 addresses used in turn. May be "
             "repeated. "
             "Default: the kernel's choice.",
             "address"},
            {"connections", "Devices in all. Default: 1.", "n"},
            {"parallel", "At most so many open at once; 0: all. Default: 0.", "n"},
            {"opening",
             "At most so many new devices connecting or in their TLS handshake at once; 0: no "
             "limit. "
             "Default: 0.",
             "n"},
            {"connect-rate", "Devices started per second; 0: no limit. Default: 0.", "rate"},
            {"connect-timeout-ms", "For connecting and TLS handshake. Default: 30000.", "ms"},
            {"messages", "Messages a device sends; 0: until stopped. Default: 1.", "n"},
            {"reconnect",
             "Times a device closes and connects again, spread evenly over its messages, whose "
             "numbers go on. Default: 0.",
             "k"},
            {"size", "Payload bytes of a message. Default: 64.", "bytes"},
            {"framing", "lines or length. Default: lines.", "framing"},
            {"rate", "Messages per second and device; 0: as fast as TCP takes them. Default: 0.",
             "rate"},
            {"segments",
             "How the stream is cut into writes: whole (a message each), byte (one byte each), "
             "random (also across messages) or blocks (64 KiB each, also across messages: the "
             "cheapest). Default: whole.",
             "segments"},
            {"seed", "For everything random; the same seed gives the same cuts. Default: 1.", "n"},
            {"pause-ms", "Random pause between two writes, or one number. Default: 0.", "min-max"},
            {"close", "close, half-close, abort or stay. Default: close.", "close"},
            {"linger-ms",
             "Limit for the waiting of half-close, stay and the faulty devices. Default: none.",
             "ms"},
            {"fault", "Be faulty, see above.", "fault"},
            {"tls", "Speak TLS."},
            {"ca", "PEM file of the authorities trusted. Default: the system's.", "file"},
            {"cert", "PEM file with the client certificate (chain).", "file"},
            {"key", "PEM file with its key.", "file"},
            {"tls-version", "1.2 or 1.3 only. Default: either.", "version"},
            {"insecure", "Do not verify the server's certificate."},
            {"resume",
             "Resume the last TLS session that a server has given in this run. The first device "
             "goes alone: until it has ended, there is none."},
            {"record-size",
             "Most bytes of a TLS record, 512 to 16384, before encryption. Default: 16384.",
             "bytes"},
            {"server-name", "Name expected in the certificate. Default: the host.", "name"},
            {"replay", "Play a recording; the devices' own options do not go with it.", "file"},
            {"speed", "Of the replay: 1 to 100 times as fast, or max. Default: 1.", "speed"},
            {"mutate", "Change the recorded bytes, the same way for the same number.", "seed"},
            {"output", "Report as text or json. Default: text.", "format"},
            {"quiet", "Report the summary only, no line per connection."},
            {"no-checksum", "Do not compute the SHA-1 of what was sent: cheaper under load."},
    };
    QList<QCommandLineOption> options;
    for (const auto &row : table)
        options.append(QCommandLineOption(tr(row.name), tr(row.description), tr(row.value)));
    return options;
}

/*!
    Takes typed values out of the parsed command line, and remembers the first error.
*/
class Reader
{
public:
    explicit Reader(const QCommandLineParser &source) : parser(source) {}

    bool isSet(const char *name) const { return parser.isSet(tr(name)); }
    QString text(const char *name) const { return parser.value(tr(name)); }
    QString error() const { return firstError; }

    void fail(const QString &message)
    {
        if (firstError.isEmpty())
            firstError = message;
    }

    template<class T>
    void number(const char *name, T &value, T min, T max = std::numeric_limits<T>::max())
    {
        if (!isSet(name))
            return;
        if (const auto parsed = toNumber(text(name), min, max))
            value = *parsed;
        else
            fail(QStringLiteral("--%1: not a number in range: %2").arg(tr(name), text(name)));
    }

    void string(const char *name, QString &value)
    {
        if (isSet(name))
            value = text(name);
    }

    template<class T, std::size_t N>
    void choice(const char *name, T &value, const Choice<T> (&choices)[N])
    {
        if (!isSet(name))
            return;
        QStringList names;
        for (const Choice<T> &one : choices) {
            names.append(tr(one.name));
            if (text(name) == names.last()) {
                value = one.value;
                return;
            }
        }
        fail(QStringLiteral("--%1: unknown value: %2; it takes %3")
                     .arg(tr(name), text(name), names.join(QStringLiteral(", "))));
    }

    void pause(int &min, int &max);
    void speed(double &factor);
    void mutation(std::optional<quint32> &seed);
    void sources(QList<QHostAddress> &addresses);

private:
    template<class T>
    static std::optional<T> toNumber(const QString &text, T min, T max)
    {
        bool ok = false;
        if constexpr (std::is_floating_point_v<T>) {
            const T value = text.toDouble(&ok);
            return ok && std::isfinite(value) && value >= min && value <= max
                    ? std::optional<T>(value)
                    : std::nullopt;
        } else if constexpr (std::is_signed_v<T>) {
            const qlonglong value = text.toLongLong(&ok);
            return ok && value >= min && value <= max ? std::optional<T>(static_cast<T>(value))
                                                      : std::nullopt;
        } else {
            const qulonglong value = text.toULongLong(&ok);
            return ok && value >= min && value <= max ? std::optional<T>(static_cast<T>(value))
                                                      : std::nullopt;
        }
    }

    void sourceRange(const QString &range, QList<QHostAddress> &addresses);

    const QCommandLineParser &parser;
    QString firstError;
};

void Reader::pause(int &min, int &max)
{
    if (!isSet("pause-ms"))
        return;
    const QStringList limits = text("pause-ms").split(QLatin1Char('-'));
    const auto from = toNumber<int>(limits.first(), 0, std::numeric_limits<int>::max());
    const auto to = toNumber<int>(limits.last(), 0, std::numeric_limits<int>::max() - 1);
    if (limits.size() > 2 || !from || !to || *from > *to)
        return fail(QStringLiteral("--pause-ms: not MIN-MAX: %1").arg(text("pause-ms")));
    min = *from;
    max = *to;
}

void Reader::speed(double &factor)
{
    if (text("speed") == QLatin1String("max"))
        factor = AsFastAsItGoes;
    else
        number<double>("speed", factor, 1, MaxSpeed);
}

void Reader::mutation(std::optional<quint32> &seed)
{
    quint32 value = 0;
    number<quint32>("mutate", value, 0);
    if (isSet("mutate"))
        seed = value;
}

void Reader::sources(QList<QHostAddress> &addresses)
{
    const QStringList ranges = parser.values(QStringLiteral("bind"));
    for (const QString &range : ranges)
        sourceRange(range, addresses);
}

void Reader::sourceRange(const QString &range, QList<QHostAddress> &addresses)
{
    const QStringList limits = range.split(QLatin1Char('-'));
    const QHostAddress first(limits.first());
    if (limits.size() == 1 && !first.isNull()) {
        addresses.append(first);
        return;
    }
    bool firstOk = false;
    bool lastOk = false;
    const quint32 from = first.toIPv4Address(&firstOk);
    const quint32 to = QHostAddress(limits.last()).toIPv4Address(&lastOk);
    if (limits.size() != 2 || !firstOk || !lastOk || from > to || to - from >= MaxSources)
        return fail(
                QStringLiteral("--bind: neither an address nor a range of them: %1").arg(range));
    for (quint32 offset = 0; offset <= to - from; ++offset)
        addresses.append(QHostAddress(from + offset));
}

void readOptions(Reader &reader, Options &options)
{
    reader.string("host", options.host);
    reader.number<quint16>("port", options.port, 1);
    reader.sources(options.sources);
    reader.number<quint64>("connections", options.connections, 1);
    reader.number<quint64>("parallel", options.parallel, 0);
    reader.number<quint64>("opening", options.opening, 0);
    reader.number<double>("connect-rate", options.connectRate, 0);
    reader.number<int>("connect-timeout-ms", options.connectTimeoutMs, 1);
    reader.number<quint64>("messages", options.messages, 0);
    reader.number<quint64>("reconnect", options.reconnect, 0);
    reader.number<int>("size", options.size, 0, MaxMessageBytes);
    reader.choice("framing", options.framing, Framings);
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
    reader.string("replay", options.replayFile);
    reader.speed(options.speed);
    reader.mutation(options.mutateSeed);
    reader.choice("output", options.output, OutputFormats);
    options.quiet = reader.isSet("quiet");
    options.checksum = !reader.isSet("no-checksum");
}

// A recording says what devices do.
void checkReplay(Reader &reader, const Options &options)
{
    if (reader.isSet("replay") && options.replayFile.isEmpty())
        reader.fail(QStringLiteral("--replay wants a file"));
    for (const char *name : {"speed", "mutate"}) {
        if (reader.isSet(name) && !reader.isSet("replay"))
            reader.fail(QStringLiteral("--%1 needs --replay").arg(tr(name)));
    }
    for (const char *name :
         {"connections", "connect-rate", "messages", "reconnect", "size", "framing", "rate",
          "segments", "seed", "pause-ms", "close", "linger-ms", "fault"}) {
        if (reader.isSet(name) && reader.isSet("replay"))
            reader.fail(QStringLiteral("--%1 does not go with --replay").arg(tr(name)));
    }
}

// Checks options that are right by themselves but wrong together.
void checkTogether(Reader &reader, const Options &options)
{
    checkReplay(reader, options);
    if (options.reconnect > 0 && options.reconnect >= options.messages)
        reader.fail(QStringLiteral("--reconnect needs more --messages than reconnections"));
    for (const char *name :
         {"ca", "cert", "key", "tls-version", "insecure", "resume", "record-size", "server-name"}) {
        if (reader.isSet(name) && !options.tls.enabled)
            reader.fail(QStringLiteral("--%1 needs --tls").arg(tr(name)));
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
    parser.setApplicationDescription(tr(Description).trimmed());
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
        Reader reader(parser);
        readOptions(reader, parsed.options);
        checkTogether(reader, parsed.options);
        parsed.error = reader.error();
    }
    return parsed;
}

} // namespace simulator
