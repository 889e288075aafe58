// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "host/options.h"

#include <QtCore/QJsonArray>
#include <QtCore/QJsonObject>
#include <QtTest/QtTest>

using namespace host;

namespace {

CommandLine parse(const QStringList &arguments)
{
    return parseCommandLine(QStringList(QStringLiteral("inputhost")) + arguments);
}

QStringList words(const char *text)
{
    return QString::fromLatin1(text).split(QLatin1Char(' '), Qt::SkipEmptyParts);
}

} // namespace

class tst_HostOptions : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void defaults();
    void all();
    void otherChoices();
    void keep_data();
    void keep();
    void settings_data();
    void settings();
    void settingsKeepTheirOrder();
    void refused_data();
    void refused();
    void limits();
    void help();
    void version();
    void recording();
    void databases();
    void nats();
    void http();
};

void tst_HostOptions::defaults()
{
    const CommandLine line = parse({});
    QCOMPARE(line.outcome, CommandLine::Run);
    const Options &options = line.options;
    QCOMPARE(options.pluginFile, QString());
    QCOMPARE(options.entryPoint, inputkit::EntryPoint::Create);
    QCOMPARE(options.configFile, QString());
    QVERIFY(options.settings.isEmpty());
    QCOMPARE(options.id, QStringLiteral("tcp"));
    QCOMPARE(options.format.framing, Framing::Lines);
    QCOMPARE(options.format.maxMessage, 1024 * 1024);
    QCOMPARE(options.maxUnfinished, 64 * 1024 * 1024);
    QCOMPARE(options.output.kind, OutputOptions::Json);
    QCOMPARE(options.output.target, QString());
    QCOMPARE(options.saveWithinSeconds, 60);
    QCOMPARE(options.logLevel, QStringLiteral("info"));
    QCOMPARE(options.statusEverySeconds, 0);
    QVERIFY(!options.statusConnections);
    QCOMPARE(options.exitAfter, 0);
    QCOMPARE(options.drainSeconds, 0);
    QCOMPARE(options.recording.file, QString());
    QVERIFY(!options.monitor.isOn());
}

void tst_HostOptions::all()
{
    const CommandLine line = parse(words(
            "--plugin lib.so --entry registerPlugin --config - --set a=1 --id x --framing length "
            "--max-message 7 --max-unfinished 8 --output raw:out/a:b --save-within 5 --log-level "
            "debug --status-every 3 --status-connections "
            "--exit-after 9 --drain 30 --metrics-file m"));
    QCOMPARE(line.outcome, CommandLine::Run);
    const Options &options = line.options;
    QCOMPARE(options.pluginFile, QStringLiteral("lib.so"));
    QCOMPARE(options.entryPoint, inputkit::EntryPoint::RegisterPlugin);
    QCOMPARE(options.configFile, QStringLiteral("-"));
    QCOMPARE(options.settings.size(), 1);
    QCOMPARE(options.id, QStringLiteral("x"));
    QCOMPARE(options.format.framing, Framing::Length);
    QCOMPARE(options.format.maxMessage, 7);
    QCOMPARE(options.maxUnfinished, 8);
    QCOMPARE(options.output.kind, OutputOptions::Raw);
    QCOMPARE(options.output.target, QStringLiteral("out/a:b"));
    QCOMPARE(options.saveWithinSeconds, 5);
    QCOMPARE(options.logLevel, QStringLiteral("debug"));
    QCOMPARE(options.statusEverySeconds, 3);
    QVERIFY(options.statusConnections);
    QCOMPARE(options.exitAfter, 9);
    QCOMPARE(options.drainSeconds, 30);
    QCOMPARE(options.monitor.metricsFile, QStringLiteral("m"));
}

void tst_HostOptions::otherChoices()
{
    QCOMPARE(parse(words("--entry create")).options.entryPoint, inputkit::EntryPoint::Create);
    QCOMPARE(parse(words("--framing lines")).options.format.framing, Framing::Lines);
    QCOMPARE(parse(words("--framing none")).options.format.framing, Framing::None);
    QCOMPARE(parse(words("--output json")).options.output.kind, OutputOptions::Json);
    QCOMPARE(parse(words("--output count")).options.output.kind, OutputOptions::Count);
    QCOMPARE(parse(words("--output none")).options.output.kind, OutputOptions::None);
    QCOMPARE(parse(words("--log-level info")).options.logLevel, QStringLiteral("info"));
    QCOMPARE(parse(words("--log-level warning")).options.logLevel, QStringLiteral("warning"));
    QCOMPARE(parse(words("--id=")).options.id, QString());
}

void tst_HostOptions::keep_data()
{
    QTest::addColumn<qint64>("seconds");
    QTest::addColumn<qint64>("bytes");
    constexpr qint64 Refused = -1;
    QTest::newRow("5s") << qint64(5) << qint64(0);
    QTest::newRow("2min") << qint64(120) << qint64(0);
    QTest::newRow("48h") << qint64(48 * 3600) << qint64(0);
    QTest::newRow("9999999d") << qint64(9999999) * 86400 << qint64(0);
    QTest::newRow("20MB") << qint64(0) << qint64(20000000);
    QTest::newRow("10GB") << qint64(0) << qint64(10000000000);
    QTest::newRow("1GB,30d") << qint64(30 * 86400) << qint64(1000000000);
    for (const char *text : {"", "30", "d", "0d", "-1d", "+1d", "30D", "30 d", "1.5d", "10gb",
                             "1d,2h", "1GB,2MB", "30d,", "1d,1GB,1d", "10000000d", "30d\n"})
        QTest::newRow(text) << Refused << Refused;
}

void tst_HostOptions::keep()
{
    QFETCH(const qint64, seconds);
    QFETCH(const qint64, bytes);
    const QString text = QString::fromLatin1(QTest::currentDataTag());
    const CommandLine line = parse({QStringLiteral("--output"), QStringLiteral("sqlite:f"),
                                    QStringLiteral("--keep=") + text});
    if (seconds < 0) {
        QCOMPARE(line.outcome, CommandLine::Refuse);
        QVERIFY2(line.text.contains(QStringLiteral("--keep: '%1'. It takes an age").arg(text)),
                 qPrintable(line.text));
        return;
    }
    if (!missingFor(OutputOptions::Sqlite).isEmpty())
        QSKIP("built without SQLite");
    QCOMPARE(line.outcome, CommandLine::Run);
    QCOMPARE(line.options.output.keep.age.count(), seconds);
    QCOMPARE(line.options.output.keep.bytes, bytes);
}

void tst_HostOptions::settings_data()
{
    QTest::addColumn<QString>("argument");
    QTest::addColumn<QString>("key");
    QTest::addColumn<QJsonValue>("value");

    const auto row = [](const char *argument, const char *key, const QJsonValue &value) {
        QTest::newRow(argument) << QString::fromUtf8(argument) << QString::fromUtf8(key) << value;
    };
    row("port=7446", "port", 7446);
    row("x=1.5", "x", 1.5);
    row("x=true", "x", true);
    row("x=null", "x", QJsonValue::Null);
    row("x=\"7446\"", "x", QStringLiteral("7446"));
    row("x={\"a\":[1]}", "x", QJsonObject{{QStringLiteral("a"), QJsonArray{1}}});
    row("x=[1,2]", "x", QJsonArray{1, 2});
    row("ipAddr=127.0.0.1", "ipAddr", QStringLiteral("127.0.0.1"));
    row("ipAddr=::1", "ipAddr", QStringLiteral("::1"));
    row("interface=lo", "interface", QStringLiteral("lo"));
    row("x=", "x", QString());
    row("x=1,2", "x", QStringLiteral("1,2"));
    row("x=1],[2", "x", QStringLiteral("1],[2"));
    row("x=a=b", "x", QStringLiteral("a=b"));
    row("x=\xc3\xa4", "x", QStringLiteral("\u00e4"));
}

void tst_HostOptions::settings()
{
    QFETCH(QString, argument);
    const CommandLine line = parse({QStringLiteral("--set"), argument});
    QCOMPARE(line.outcome, CommandLine::Run);
    QCOMPARE(line.options.settings.size(), 1);
    QTEST(line.options.settings.first().first, "key");
    QTEST(line.options.settings.first().second, "value");
}

void tst_HostOptions::settingsKeepTheirOrder()
{
    const CommandLine line = parse(words("--set a=1 --set b=2 --set a=3"));
    const QList<std::pair<QString, QJsonValue>> expected = {
            {QStringLiteral("a"), 1}, {QStringLiteral("b"), 2}, {QStringLiteral("a"), 3}};
    QCOMPARE(line.options.settings, expected);
}

void tst_HostOptions::refused_data()
{
    QTest::addColumn<QString>("named"); // text that the error must contain

    QTest::newRow("--nonsense") << "nonsense";
    QTest::newRow("surplus") << "surplus";
    QTest::newRow("--plugin") << "plugin";
    QTest::newRow("--set port") << "KEY=VALUE";
    QTest::newRow("--set =1") << "KEY=VALUE";
    QTest::newRow("--set ssl={\"CertFile\":\"a\"") << "--set ssl: this is not JSON: {\"CertFile\":";
    QTest::newRow("--set ssl={CertFile:a}") << "--set ssl: this is not JSON";
    QTest::newRow("--set x=[1") << "--set x: this is not JSON";
    QTest::newRow("--set x=\"a") << "--set x: this is not JSON";
    QTest::newRow("--entry other") << "--entry: 'other'. It takes one of create, registerPlugin.";
    QTest::newRow("--http here:80") << "--http: 'here:80'. It takes PORT or ADDRESS:PORT";
    QTest::newRow("--metrics-file=") << "--metrics-file wants a file.";
    QTest::newRow("--framing line") << "--framing: 'line'. It takes one of lines, length, none.";
    QTest::newRow("--output JSON")
            << "--output: 'JSON'. It takes one of json, json:FILE, raw, raw:FILE, count, none, "
               "sqlite:FILE, postgresql:CONNINFO, nats://HOST/STREAM.";
    QTest::newRow("--log-level error")
            << "--log-level: 'error'. It takes one of debug, info, warning.";
    QTest::newRow("--max-message 0")
            << "--max-message: '0'. It takes a number from 1 to 1073741823.";
    QTest::newRow("--max-message -1") << "--max-message: '-1'";
    QTest::newRow("--max-message 1k") << "--max-message: '1k'";
    QTest::newRow("--max-message 99999999999") << "--max-message: '99999999999'";
    QTest::newRow("--max-message=") << "--max-message: ''";
    QTest::newRow("--max-unfinished 0") << "--max-unfinished: '0'. It takes a number from 1 to";
    QTest::newRow("--max-unfinished 1M") << "--max-unfinished: '1M'";
    QTest::newRow("--status-every 0")
            << "--status-every: '0'. It takes a number from 1 to 2147483.";
    QTest::newRow("--status-every x") << "--status-every: 'x'";
    QTest::newRow("--status-every=") << "--status-every: ''";
    QTest::newRow("--drain 0") << "--drain: '0'. It takes a number from 1 to 2147483.";
    QTest::newRow("--drain 1m") << "--drain: '1m'";
    QTest::newRow("--exit-after 0") << "--exit-after: '0'";
    QTest::newRow("--record=") << "--record wants a file.";
    QTest::newRow("--record-compress") << "--record-compress needs --record.";
    QTest::newRow("--record-size 9") << "--record-size needs --record.";
    QTest::newRow("--record f --record-size 0") << "--record-size: '0'";
    QTest::newRow("--record f --record-keep 2") << "--record-keep needs --record-size.";
    QTest::newRow("--output json:") << "--output: 'json:...'";
    QTest::newRow("--output count:file") << "--output: 'count:...'";
    QTest::newRow("--output sqlite") << "--output: 'sqlite'";
    QTest::newRow("--output postgres:password=x") << "--output: 'postgres:...'";
    QTest::newRow("--keep 30d") << "--keep needs --output sqlite:FILE.";
    QTest::newRow("--output nats") << "--output: 'nats'";
    QTest::newRow("--output nats:a/S") << "nats://HOST/STREAM: two slashes are missing.";
    QTest::newRow("--output nats://a/S --nats-create R2") << "--nats-create: 'R2'. It takes one of";
    QTest::newRow("--output nats://a/S --nats-subject a.*") << "--nats-subject: 'a.*': a subject";
    QTest::newRow("--output nats://a/S --nats-tls-key k")
            << "--nats-tls-cert and --nats-tls-key need each other.";
    QTest::newRow("--nats-create R1") << "--nats-create needs --output nats://HOST/STREAM.";
    QTest::newRow("--save-within 0") << "--save-within: '0'";
    QTest::newRow("--exit-after x --output x") << "--output: 'x'"; // the option that is read first
}

void tst_HostOptions::refused()
{
    QFETCH(QString, named);
    const CommandLine line = parse(words(QTest::currentDataTag()));
    QCOMPARE(line.outcome, CommandLine::Refuse);
    QVERIFY2(line.text.contains(named), qPrintable(line.text));
}

void tst_HostOptions::limits()
{
    QCOMPARE(parse(words("--max-message 1")).options.format.maxMessage, 1);
    QCOMPARE(parse(words("--max-message 1073741823")).options.format.maxMessage, 1073741823);
    QCOMPARE(parse(words("--max-message 1073741824")).outcome, CommandLine::Refuse);
    // By default, a message of the maximum length fits into the limit of unfinished bytes.
    QCOMPARE(parse(words("--max-message 100000000")).options.maxUnfinished, 100000000);
    QCOMPARE(parse(words("--max-message 9 --max-unfinished 1")).options.maxUnfinished, 1);
    QCOMPARE(parse(words("--status-every 2147483")).options.statusEverySeconds, 2147483);
    QCOMPARE(parse(words("--status-every 2147484")).outcome, CommandLine::Refuse);
    QCOMPARE(parse(words("--exit-after 9223372036854775807")).options.exitAfter,
             Q_INT64_C(9223372036854775807));
}

void tst_HostOptions::help()
{
    for (const char *arguments : {"--help", "-h", "--help --output x"}) {
        const CommandLine line = parse(words(arguments));
        QCOMPARE(line.outcome, CommandLine::Inform);
        for (const char *named : {"--plugin",       "--entry",
                                  "--config",       "--set",
                                  "--id",           "--framing",
                                  "--max-message",  "--max-unfinished",
                                  "--output",       "--log-level",
                                  "--status-every", "--exit-after",
                                  "--help",         "--version",
                                  "Exit codes",     "SIGHUP",
                                  "SIGUSR2",        "--save-within",
                                  "json:FILE",      "--drain",
                                  "sqlite:FILE",    "postgresql:CONNINFO",
                                  "nats://HOST",    "--keep",
                                  "/status.json",   "--status-connections"})
            QVERIFY2(line.text.contains(QLatin1String(named)), named);
    }
}

void tst_HostOptions::version()
{
    QCoreApplication::setApplicationVersion(QStringLiteral("1.2.3"));
    for (const char *arguments : {"--version", "-v"}) {
        const CommandLine line = parse(words(arguments));
        QCOMPARE(line.outcome, CommandLine::Inform);
        QCOMPARE(line.text, QStringLiteral("tst_hostoptions 1.2.3\n"));
    }
}

void tst_HostOptions::recording()
{
    const inputkit::RecordingOptions plain = parse(words("--record f")).options.recording;
    QCOMPARE(plain.file, QStringLiteral("f"));
    QCOMPARE(plain.fileBytes, 0);
    QCOMPARE(plain.keep, 0);
    QVERIFY(plain.withPayload && !plain.compress);

    const inputkit::RecordingOptions all =
            parse(words("--record f --record-size 10000000000 --record-keep 3 "
                        "--record-no-payload --record-compress"))
                    .options.recording;
    QCOMPARE(all.fileBytes, Q_INT64_C(10000000000));
    QCOMPARE(all.keep, 3);
    QVERIFY(!all.withPayload && all.compress);
}

void tst_HostOptions::databases()
{
    if (!missingFor(OutputOptions::Sqlite).isEmpty()
        || !missingFor(OutputOptions::Postgres).isEmpty())
        QSKIP("built without them");
    const OutputOptions sqlite = parse(words("--output sqlite:a:b")).options.output;
    QCOMPARE(sqlite.kind, OutputOptions::Sqlite);
    QCOMPARE(sqlite.target, QStringLiteral("a:b"));
    QVERIFY(sqlite.keep.isAll());
    const OutputOptions server = parse(words("--output postgresql://me@there/data")).options.output;
    QCOMPARE(server.kind, OutputOptions::Postgres);
    QCOMPARE(server.target, QStringLiteral("//me@there/data"));
}

void tst_HostOptions::nats()
{
    if (!missingFor(OutputOptions::Nats).isEmpty())
        QSKIP("built without libnats");
    const CommandLine plain = parse(words("--output nats://me:secret@a,b:5/S"));
    QCOMPARE(plain.outcome, CommandLine::Run);
    QCOMPARE(plain.options.output.kind, OutputOptions::Nats);
    QCOMPARE(plain.options.output.target, QString());
    const NatsSettings &settings = plain.options.output.nats;
    QCOMPARE(settings.servers, words("a:4222 b:5"));
    QCOMPARE(settings.stream, QStringLiteral("S"));
    QCOMPARE(settings.password, QStringLiteral("secret"));
    QCOMPARE(settings.subject, QStringLiteral("dev.{connection}"));
    QCOMPARE(settings.replicas, 0);
    QVERIFY(!settings.wantsTls());

    const NatsSettings all =
            parse(words("--output nats://a/S --nats-subject x.{peer} --nats-create R3 "
                        "--nats-tls-ca "
                        "ca --nats-tls-cert cert --nats-tls-key key --nats-credentials creds"))
                    .options.output.nats;
    QCOMPARE(all.subject, QStringLiteral("x.{peer}"));
    QCOMPARE(all.replicas, 3);
    QCOMPARE(all.caFile, QStringLiteral("ca"));
    QCOMPARE(all.certificateFile, QStringLiteral("cert"));
    QCOMPARE(all.keyFile, QStringLiteral("key"));
    QCOMPARE(all.credentialsFile, QStringLiteral("creds"));

    const QString text = parse(words("--output nats://me:secret@a")).text;
    QVERIFY(text.contains(QStringLiteral("the stream's name")));
    QVERIFY(!text.contains(QStringLiteral("secret")));
}

void tst_HostOptions::http()
{
    const CommandLine line = parse(words("--http 10.0.0.1:80"));
    if (!hasWebServer()) {
        QCOMPARE(line.outcome, CommandLine::Refuse);
        QVERIFY2(line.text.contains(QStringLiteral("without libmicrohttpd")),
                 qPrintable(line.text));
        return;
    }
    QCOMPARE(line.outcome, CommandLine::Run);
    QCOMPARE(line.options.monitor.http->toString(), QStringLiteral("10.0.0.1:80"));
}

QTEST_GUILESS_MAIN(tst_HostOptions)
#include "tst_hostoptions.moc"
