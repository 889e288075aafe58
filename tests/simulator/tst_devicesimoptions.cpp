// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "simulator/ending.h"
#include "simulator/options.h"
#include "tests/simulator/partstest.h"

#include <QtTest/QTest>

using namespace simulator;
using namespace partstest;

// The command line, and the kinds of ending that it can set.
class tst_DeviceSimOptions : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void endings_data();
    void endings();

    void defaults();
    void readsOptions();
    void bindsToRanges();
    void rejects_data();
    void rejects();
    void rejectsTemplatesThatDoNotFit();
    void rejectsWhatItCannotParse();
    void helpsAndTellsItsVersion();
    void replay();
};

void tst_DeviceSimOptions::endings_data()
{
    QTest::addColumn<QByteArray>("commandLine");
    QTest::addColumn<bool>("isLast");
    QTest::addColumn<QByteArray>("steps");

    QTest::newRow("close") << QByteArray() << true << QByteArray("close");
    QTest::newRow("close, TLS") << QByteArray("--tls") << true
                                << QByteArray("notify shutdown await 5000");
    QTest::newRow("half-close") << QByteArray("--close half-close") << true
                                << QByteArray("notify shutdown await -1");
    QTest::newRow("half-close with limit") << QByteArray("--close half-close --linger-ms 7") << true
                                           << QByteArray("notify shutdown await 7");
    QTest::newRow("abort") << QByteArray("--close abort") << true << QByteArray("reset");
    QTest::newRow("stay") << QByteArray("--close stay") << true << QByteArray("await -1 again");
    QTest::newRow("stay, then reconnect")
            << QByteArray("--close stay") << false << QByteArray("close");
    QTest::newRow("abort, then reconnect")
            << QByteArray("--close abort") << false << QByteArray("reset");
    QTest::newRow("silent") << QByteArray("--fault silent --linger-ms 9") << true
                            << QByteArray("await 9");
    QTest::newRow("garbage, no TLS")
            << QByteArray("--fault garbage --tls") << true << QByteArray("close");
    QTest::newRow("abort-handshake")
            << QByteArray("--fault abort-handshake --tls") << true << QByteArray("reset unread");
    QTest::newRow("close-notify-only") << QByteArray("--fault close-notify-only --tls") << true
                                       << QByteArray("notify await -1 rawly");
    QTest::newRow("close-without-reading") << QByteArray("--fault close-without-reading --tls")
                                           << true << QByteArray("close unread");
}

void tst_DeviceSimOptions::endings()
{
    QFETCH(const QByteArray, commandLine);
    QFETCH(const bool, isLast);
    QFETCH(const QByteArray, steps);
    const ParsedOptions parsed = parse(commandLine.constData());
    QCOMPARE(parsed.error, QString());

    const Ending ending = endingFor(parsed.options, isLast);
    QByteArrayList actual;
    if (ending.closeNotify)
        actual += "notify";
    if (ending.shutdownWrite)
        actual += "shutdown";
    if (ending.then == Ending::Then::Close)
        actual += "close";
    if (ending.then == Ending::Then::Reset)
        actual += "reset";
    if (ending.then == Ending::Then::AwaitPeer)
        actual += "await " + QByteArray::number(ending.waitMs);
    if (ending.afterWait == Ending::AfterWait::Close)
        actual += "again";
    if (ending.ignoreTls)
        actual += "rawly";
    if (!ending.reads)
        actual += "unread";
    QCOMPARE(actual.join(' '), steps);
}

void tst_DeviceSimOptions::defaults()
{
    const ParsedOptions parsed = parse("");
    QCOMPARE(parsed.error, QString());
    QCOMPARE(parsed.text, QString());
    QCOMPARE(parsed.options.host, QStringLiteral("127.0.0.1"));
    QCOMPARE(parsed.options.port, quint16(7446));
    QCOMPARE(parsed.options.connections, quint64(1));
    QCOMPARE(parsed.options.messages, quint64(1));
    QVERIFY(parsed.options.close == CloseMode::Close);
    QVERIFY(parsed.options.framing.kind() == Framing::Lines);
    QVERIFY(!parsed.options.tls.enabled);
    QVERIFY(!parsed.options.tls.resume);
    QCOMPARE(parsed.options.tls.recordSize, 0);
}

void tst_DeviceSimOptions::readsOptions()
{
    const Options options =
            parse("--host ::1 --port 1234 --connections 3000 --parallel 50 --opening 9 "
                  "--connect-rate 2.5 "
                  "--connect-timeout-ms 9 --messages 20 --reconnect 4 --size 0 --framing length "
                  "--rate 0.5 --segments byte --seed 77 --pause-ms 2-30 --close stay "
                  "--linger-ms 0 --output json --quiet --no-checksum --tls --ca a --cert b "
                  "--key c --tls-version 1.3 --insecure --record-size 512 --server-name n "
                  "--fault close-without-reading")
                    .options;
    QCOMPARE(options.host, QStringLiteral("::1"));
    QCOMPARE(options.port, quint16(1234));
    QCOMPARE(options.connections, quint64(3000));
    QCOMPARE(options.parallel, quint64(50));
    QCOMPARE(options.opening, quint64(9));
    QCOMPARE(options.connectRate, 2.5);
    QCOMPARE(options.connectTimeoutMs, 9);
    QCOMPARE(options.messages, quint64(20));
    QCOMPARE(options.reconnect, quint64(4));
    QCOMPARE(options.size, 0);
    QVERIFY(options.framing.kind() == Framing::Length);
    QCOMPARE(options.rate, 0.5);
    QVERIFY(options.segments == Segments::Byte);
    QCOMPARE(options.seed, quint32(77));
    QCOMPARE(options.pauseMinMs, 2);
    QCOMPARE(options.pauseMaxMs, 30);
    QVERIFY(options.close == CloseMode::Stay);
    QCOMPARE(options.lingerMs, 0);
    QVERIFY(options.output == OutputFormat::Json);
    QVERIFY(options.quiet);
    QVERIFY(!options.checksum);
    QVERIFY(options.tls.enabled);
    QCOMPARE(options.tls.caFile, QStringLiteral("a"));
    QCOMPARE(options.tls.certFile, QStringLiteral("b"));
    QCOMPARE(options.tls.keyFile, QStringLiteral("c"));
    QVERIFY(options.tls.version == TlsVersion::OneThree);
    QVERIFY(options.tls.insecure);
    QCOMPARE(options.tls.recordSize, 512);
    QVERIFY(!options.tls.resume);
    QCOMPARE(options.tls.serverName, QStringLiteral("n"));
    QVERIFY(options.fault == Fault::CloseWithoutReading);

    QVERIFY(parse("--tls --resume").options.tls.resume);

    const Options onePause = parse("--pause-ms 5").options;
    QCOMPARE(onePause.pauseMinMs, 5);
    QCOMPARE(onePause.pauseMaxMs, 5);
}

void tst_DeviceSimOptions::bindsToRanges()
{
    const Options options = parse("--bind 127.0.0.254-127.0.1.1 --bind ::1").options;
    const QList<QHostAddress> expected{
            QHostAddress(QStringLiteral("127.0.0.254")),
            QHostAddress(QStringLiteral("127.0.0.255")), QHostAddress(QStringLiteral("127.0.1.0")),
            QHostAddress(QStringLiteral("127.0.1.1")), QHostAddress(QStringLiteral("::1"))};
    QCOMPARE(options.sources, expected);
}

void tst_DeviceSimOptions::rejects_data()
{
    QTest::addColumn<QByteArray>("commandLine");
    QTest::addColumn<QString>("error");
    const auto row = [](const char *commandLine, const char *error) {
        QTest::newRow(commandLine) << QByteArray(commandLine) << QString::fromLatin1(error);
    };
    row("stray", "Unexpected argument: stray");
    row("--port 0", "--port: not a number in range: 0");
    row("--port 65536", "--port: not a number in range: 65536");
    row("--connections 0", "--connections: not a number in range: 0");
    row("--connections -1", "--connections: not a number in range: -1");
    row("--connections 10000001", "--connections: not a number in range: 10000001");
    row("--size 1e3", "--size: not a number in range: 1e3");
    row("--size 2000000000", "--size: not a number in range: 2000000000");
    row("--rate -1", "--rate: not a number in range: -1");
    row("--rate nan", "--rate: not a number in range: nan");
    row("--rate inf", "--rate: not a number in range: inf");
    row("--linger-ms -1", "--linger-ms: not a number in range: -1");
    row("--framing xml",
        "--framing: unknown value: xml; it takes lines, crlf, length [BYTES [big|little [all]]], "
        "fixed BYTES [FILL], marks START END [ESCAPE [FLIP]], hdlc, none");
    row("--segments half", "--segments: unknown value: half; it takes whole, byte, random, blocks");
    row("--close never", "--close: unknown value: never; it takes close, half-close, abort, stay");
    row("--fault none",
        "--fault: unknown value: none; it takes silent, garbage, abort-handshake, "
        "close-notify-only, close-without-reading");
    row("--tls --tls-version 1.1", "--tls-version: unknown value: 1.1; it takes 1.2, 1.3");
    row("--output xml", "--output: unknown value: xml; it takes text, json");
    row("--pause-ms 5-2", "--pause-ms: not MIN-MAX: 5-2");
    row("--pause-ms 1-2-3", "--pause-ms: not MIN-MAX: 1-2-3");
    row("--pause-ms x", "--pause-ms: not MIN-MAX: x");
    row("--bind here", "--bind: neither an address nor a range of them: here");
    row("--bind 127.0.0.2-127.0.0.1",
        "--bind: neither an address nor a range of them: 127.0.0.2-127.0.0.1");
    row("--bind 127.0.0.1-128.0.0.1",
        "--bind: neither an address nor a range of them: 127.0.0.1-128.0.0.1");
    row("--messages 3 --reconnect 3", "--reconnect needs more --messages than reconnections");
    row("--messages 0 --reconnect 1", "--reconnect needs more --messages than reconnections");
    row("--ca file", "--ca needs --tls");
    row("--insecure", "--insecure needs --tls");
    row("--resume", "--resume needs --tls");
    row("--record-size 1000", "--record-size needs --tls");
    row("--tls --record-size 511", "--record-size: not a number in range: 511");
    row("--tls --record-size 16385", "--record-size: not a number in range: 16385");
    row("--tls --resume --close stay", "--resume needs a first device that ends: not --close stay");
    row("--tls --cert file", "--cert and --key need each other");
    row("--fault abort-handshake", "--fault abort-handshake needs --tls");
    row("--speed 2", "--speed needs --replay");
    row("--mutate 1", "--mutate needs --replay");
    row("--replay=", "--replay wants a file");
    row("--replay f --speed 0.5", "--speed: not a number in range: 0.5");
    row("--replay f --speed 101", "--speed: not a number in range: 101");
    row("--replay f --speed fast", "--speed: not a number in range: fast");
    row("--replay f --mutate -1", "--mutate: not a number in range: -1");
    row("--replay f --messages 3", "--messages does not go with --replay");
    row("--replay f --close abort", "--close does not go with --replay");
    row("--messages-from=", "--messages-from wants a file");
    row("--messages-as hex", "--messages-as needs --messages-from");
    row("--messages-from f --messages-as xml",
        "--messages-as: unknown value: xml; it takes text, plain, hex, whole");
    row("--messages-from f --size 3", "--size does not go with --messages-from");
    row("--template x --size 3", "--size does not go with --template");
    row("--template x --fault garbage", "--fault garbage does not go with --template");
    row("--template {line}", "--template: {line} needs --messages-from");
    row("--messages-from f --template x", "--template has no {line}, which --messages-from is for");
    row("--messages-from f --messages 2 --reconnect 2",
        "--reconnect needs more --messages than reconnections");
    row("--messages-from - --parallel 2", "--parallel does not go with --messages-from -");
    row("--messages-from - --segments blocks", "--messages-from - needs --segments whole or byte");
    row("--progress --no-progress", "--progress and --no-progress contradict each other");
    row("--script=", "--script wants a file");
    row("--script f --messages 2", "--messages does not go with --script");
    row("--script f --close stay", "--close does not go with --script");
    row("--script f --segments random", "--script needs --segments whole or byte");
    row("--replay f --script g", "--script does not go with --replay");
    row("--replay f --template x", "--template does not go with --replay");
    row("--replay f --messages-from g", "--messages-from does not go with --replay");
    row("--template= --framing none", "--template: 0 bytes do not fit the framing");
    row("--template \\q",
        "--template: unknown escape: \\q; there are \\n, \\r, \\t, \\0, \\\\, \\{ and \\xNN");
    row("--fault garbage --size 0", "--fault garbage needs a --size");
}

void tst_DeviceSimOptions::rejects()
{
    QFETCH(const QByteArray, commandLine);
    QFETCH(const QString, error);
    QCOMPARE(parse(commandLine.constData()).error, error);
}

// What a placeholder stands for is not known before it is sent.
void tst_DeviceSimOptions::rejectsTemplatesThatDoNotFit()
{
    const auto error = [](const char *text) {
        return parse({QStringLiteral("--framing"), QStringLiteral("fixed 2"),
                      QStringLiteral("--template"), QLatin1String(text)})
                .error;
    };
    QCOMPARE(error("ab"), QString());
    QCOMPARE(error("abc"), QStringLiteral("--template: 3 bytes do not fit the framing"));
    QCOMPARE(error("{letters:3}"), QString());
}

// The texts of these errors are Qt's.
void tst_DeviceSimOptions::rejectsWhatItCannotParse()
{
    for (const char *commandLine : {"--nonsense", "--port"}) {
        const QString error = parse(commandLine).error;
        QVERIFY2(error.contains(QLatin1String(commandLine + 2)), qPrintable(error));
    }
}

void tst_DeviceSimOptions::helpsAndTellsItsVersion()
{
    const QString help = parse("--help").text;
    QVERIFY(help.contains(QStringLiteral("d<device>-<number> <padding>")));
    QVERIFY(help.contains(QStringLiteral("--connect-rate")));
    QVERIFY(help.contains(QStringLiteral("standard error.\n\nA recording of ")));
    QCOMPARE(parse("-h").text, help);
    QVERIFY(!parse("--version").text.isEmpty());
}

void tst_DeviceSimOptions::replay()
{
    const Options none = parse("").options;
    QVERIFY(none.replayFile.isEmpty() && !none.mutateSeed);
    const Options plain = parse("--replay f").options;
    QCOMPARE(plain.replayFile, QStringLiteral("f"));
    QCOMPARE(plain.speed, 1.0);
    QCOMPARE(parse("--replay f --speed 2.5").options.speed, 2.5);
    const Options all = parse("--replay f --speed max --mutate 7 --tls --parallel 3").options;
    QCOMPARE(all.speed, 0.0);
    QCOMPARE(all.mutateSeed, std::optional<quint32>(7));
    const Ending reset = recordedEnding(parse("--replay f --speed 10").options, 2'000'000, true);
    QCOMPARE(reset.waitMs, 200);
    QVERIFY(reset.afterWait == Ending::AfterWait::Reset);
    const Ending close = recordedEnding(all, 2'000'000, false);
    QCOMPARE(close.waitMs, 0);
    QVERIFY(close.afterWait == Ending::AfterWait::Close);
}

QTEST_GUILESS_MAIN(tst_DeviceSimOptions)
#include "tst_devicesimoptions.moc"
