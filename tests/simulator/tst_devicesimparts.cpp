// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "simulator/ending.h"
#include "simulator/messageformat.h"
#include "simulator/options.h"
#include "simulator/outbox.h"
#include "simulator/pace.h"

#include <QtTest/QTest>

#include <limits>

using namespace simulator;

namespace {

constexpr quint64 AllDue = std::numeric_limits<quint64>::max();

QByteArray messageOf(const Options &options, quint64 device, quint64 number)
{
    QByteArray message;
    MessageFormat(options).append(message, device, number);
    return message;
}

// Takes the stream out as a socket would that accepts everything. Returns the segments.
QList<QByteArray> drain(Outbox &outbox)
{
    QList<QByteArray> segments;
    while (!outbox.isAtEnd()) {
        const QByteArrayView segment = outbox.segment(AllDue);
        segments.append(segment.toByteArray());
        outbox.accept(segment.size());
    }
    return segments;
}

Segmenter segmenter(const Options &options, quint64 stream = 1)
{
    return Segmenter(options.segments, MessageFormat(options).usualBytes(),
                     RandomSource({options.seed, stream}));
}

ParsedOptions parse(const QStringList &arguments)
{
    return parseOptions(QStringList(QStringLiteral("devicesim")) + arguments);
}

ParsedOptions parse(const char *commandLine)
{
    return parse(QString::fromLatin1(commandLine).split(QLatin1Char(' '), Qt::SkipEmptyParts));
}

} // namespace

class tst_DeviceSimParts : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void formatsMessages_data();
    void formatsMessages();
    void neighboursDiffer();
    void makesGarbage();

    void segmentsAreTheStream_data();
    void segmentsAreTheStream();
    void wholeSegmentsAreMessages();
    void blocksReachOverMessages();
    void randomCutsAreReproducible();
    void countsWhatIsAccepted();
    void holdsBackWhatIsNotDue();
    void stopsAfterTheMessageBegun();
    void emptyStreamIsAtEnd();

    void paces();
    void pacesWithoutLimit();

    void endings_data();
    void endings();

    void defaults();
    void readsOptions();
    void bindsToRanges();
    void rejects_data();
    void rejects();
    void rejectsWhatItCannotParse();
    void helpsAndTellsItsVersion();
};

void tst_DeviceSimParts::formatsMessages_data()
{
    QTest::addColumn<QString>("framing");
    QTest::addColumn<int>("size");
    QTest::addColumn<QByteArray>("message");

    const QString lines = QStringLiteral("lines");
    const QString length = QStringLiteral("length");
    QTest::newRow("line") << lines << 12 << QByteArray("d12-345 hijk\n");
    QTest::newRow("line, no room for padding") << lines << 0 << QByteArray("d12-345\n");
    QTest::newRow("line, room for a blank") << lines << 8 << QByteArray("d12-345 \n");
    QTest::newRow("length") << length << 12 << QByteArray("\0\0\0\x0c", 4) + "d12-345 hijk";
    QTest::newRow("length, short") << length << 0 << QByteArray("\0\0\0\x07", 4) + "d12-345";
    QTest::newRow("length over a byte") << length << 300
                                        << QByteArray("\0\0\x01\x2c", 4) + "d12-345 "
                    + QByteArray("abcdefghijklmnopqrstuvwxyz").repeated(20).mid(7, 292);
}

void tst_DeviceSimParts::formatsMessages()
{
    QFETCH(const QString, framing);
    QFETCH(const int, size);
    QFETCH(const QByteArray, message);
    const ParsedOptions parsed = parse({QStringLiteral("--framing"), framing,
                                        QStringLiteral("--size"), QString::number(size)});
    QCOMPARE(parsed.error, QString());
    QCOMPARE(messageOf(parsed.options, 12, 345), message);
}

void tst_DeviceSimParts::neighboursDiffer()
{
    const Options options;
    const QByteArray one = messageOf(options, 1, 1);
    const QByteArray two = messageOf(options, 1, 2);
    QCOMPARE(one.size(), options.size + 1);
    QCOMPARE(two.size(), one.size());
    for (qsizetype i = one.indexOf(' ') + 1; i < options.size; ++i)
        QVERIFY(one.at(i) != two.at(i));
}

void tst_DeviceSimParts::makesGarbage()
{
    const Options options = parse("--fault garbage --size 500").options;
    const QByteArray garbage = messageOf(options, 1, 1);
    QCOMPARE(garbage.size(), 500);
    QVERIFY(static_cast<uchar>(garbage.at(0)) < 0x10); // a TLS record would begin with 0x14 to 0x18
    QCOMPARE(messageOf(options, 1, 1), garbage);
    QVERIFY(messageOf(options, 1, 2) != garbage);
    QVERIFY(messageOf(options, 2, 1) != garbage);
    const Options otherSeed = parse("--fault garbage --size 500 --seed 2").options;
    QVERIFY(messageOf(otherSeed, 1, 1) != garbage);
}

void tst_DeviceSimParts::segmentsAreTheStream_data()
{
    QTest::addColumn<QString>("segments");
    QTest::addColumn<QString>("framing");
    for (const char *segments : {"whole", "byte", "random", "blocks"}) {
        for (const char *framing : {"lines", "length"}) {
            QTest::addRow("%s %s", segments, framing)
                    << QString::fromLatin1(segments) << QString::fromLatin1(framing);
        }
    }
}

void tst_DeviceSimParts::segmentsAreTheStream()
{
    QFETCH(const QString, segments);
    QFETCH(const QString, framing);
    const Options options =
            parse({QStringLiteral("--segments"), segments, QStringLiteral("--framing"), framing,
                   QStringLiteral("--size"), QStringLiteral("20")})
                    .options;
    QByteArray stream;
    for (quint64 number = 95; number <= 205; ++number)
        stream += messageOf(options, 3, number);

    const MessageFormat format(options);
    Outbox outbox(format, segmenter(options), 3, 95, 205, true);
    const QList<QByteArray> parts = drain(outbox);
    QCOMPARE(parts.join(), stream);
    QVERIFY(!parts.contains(QByteArray()));
    QCOMPARE(outbox.acceptedMessages(), quint64(111));
    QCOMPARE(outbox.acceptedBytes(), static_cast<quint64>(stream.size()));
    QCOMPARE(outbox.checksum(), QCryptographicHash::hash(stream, QCryptographicHash::Sha1).toHex());
}

void tst_DeviceSimParts::wholeSegmentsAreMessages()
{
    const Options options;
    const MessageFormat format(options);
    Outbox outbox(format, segmenter(options), 1, 1, 2, false);
    const QList<QByteArray> expected{messageOf(options, 1, 1), messageOf(options, 1, 2)};
    QCOMPARE(drain(outbox), expected);
    QCOMPARE(outbox.checksum(), QByteArray());
}

void tst_DeviceSimParts::blocksReachOverMessages()
{
    const Options options = parse("--segments blocks --size 999").options;
    const MessageFormat format(options);
    Outbox outbox(format, segmenter(options), 1, 1, 100, false);
    const QList<QByteArray> blocks = drain(outbox);
    QCOMPARE(blocks.size(), 2);
    QCOMPARE(blocks.first().size(), 64 * 1024);
    QCOMPARE(blocks.last().size(), 100 * 1000 - 64 * 1024);
}

void tst_DeviceSimParts::randomCutsAreReproducible()
{
    const Options options = parse("--segments random --size 20").options;
    const Options otherSeed = parse("--segments random --size 20 --seed 2").options;
    const MessageFormat format(options);
    const auto cuts = [&format](const Segmenter &cutter) {
        Outbox outbox(format, cutter, 1, 1, 50, false);
        return drain(outbox);
    };
    const QList<QByteArray> once = cuts(segmenter(options));
    QCOMPARE(cuts(segmenter(options)), once);
    QVERIFY(cuts(segmenter(options, 2)) != once);
    QVERIFY(cuts(segmenter(otherSeed)) != once);

    const auto endsWithin = [](const QByteArray &part) { return !part.endsWith('\n'); };
    const auto reachesOver = [](const QByteArray &part) { return part.chopped(1).contains('\n'); };
    QVERIFY(std::any_of(once.begin(), once.end(), endsWithin));
    QVERIFY(std::any_of(once.begin(), once.end(), reachesOver));
}

void tst_DeviceSimParts::countsWhatIsAccepted()
{
    const Options options = parse("--size 9").options;
    const MessageFormat format(options);
    Outbox outbox(format, segmenter(options), 1, 1, 2, true);

    QCOMPARE(outbox.segment(AllDue).size(), 10);
    outbox.accept(4);
    QVERIFY(outbox.isWithinSegment());
    QCOMPARE(outbox.acceptedMessages(), quint64(0));
    QCOMPARE(outbox.acceptedBytes(), quint64(4));
    QCOMPARE(outbox.checksum(), QCryptographicHash::hash("d1-1", QCryptographicHash::Sha1).toHex());

    QCOMPARE(outbox.segment(AllDue).toByteArray(), messageOf(options, 1, 1).mid(4));
    outbox.accept(6);
    QVERIFY(!outbox.isWithinSegment());
    QVERIFY(!outbox.isAtEnd());
    QCOMPARE(outbox.acceptedMessages(), quint64(1));
}

void tst_DeviceSimParts::holdsBackWhatIsNotDue()
{
    const Options options = parse("--segments random --size 20 --seed 5").options;
    const MessageFormat format(options);
    Outbox paced(format, segmenter(options), 1, 1, 30, false);
    Outbox unpaced(format, segmenter(options), 1, 1, 30, false);

    // However slowly messages become due, the cuts are the same.
    QList<QByteArray> segments;
    for (quint64 due = 1; due <= 30; ++due) {
        for (;;) {
            const QByteArrayView segment = paced.segment(due);
            if (segment.isEmpty())
                break;
            segments.append(segment.toByteArray());
            paced.accept(segment.size());
        }
        QVERIFY(paced.nextNumber() <= due + 1);
    }
    QVERIFY(paced.isAtEnd());
    QCOMPARE(segments, drain(unpaced));
}

void tst_DeviceSimParts::stopsAfterTheMessageBegun()
{
    const Options options = parse("--segments byte --messages 0").options;
    const MessageFormat format(options);
    Outbox outbox(format, segmenter(options), 1, 1, AllDue, false);
    QCOMPARE(outbox.segment(AllDue).size(), 1);
    outbox.accept(1);
    outbox.stop();
    QCOMPARE('d' + drain(outbox).join(), messageOf(options, 1, 1));
    QCOMPARE(outbox.acceptedMessages(), quint64(1));
}

void tst_DeviceSimParts::emptyStreamIsAtEnd()
{
    const Options options;
    const MessageFormat format(options);
    Outbox outbox(format, segmenter(options), 1, 1, 0, true);
    QVERIFY(outbox.isAtEnd());
    QVERIFY(outbox.segment(AllDue).isEmpty());
}

void tst_DeviceSimParts::paces()
{
    Pace pace(0.001); // an event in 1000 s
    QCOMPARE(pace.due(), quint64(1));
    pace.start();
    QCOMPARE(pace.due(), quint64(1));
    QCOMPARE(pace.msUntil(1), 0);
    QVERIFY(pace.msUntil(2) > 0);
    QVERIFY(pace.msUntil(2) <= 1000 * 1000);
    QVERIFY(pace.msUntil(3) > 1000 * 1000);

    Pace fast(1e6);
    fast.start();
    QTRY_VERIFY(fast.due() > 1000);
    QCOMPARE(fast.msUntil(1000), 0);
}

void tst_DeviceSimParts::pacesWithoutLimit()
{
    Pace pace(0);
    pace.start();
    QCOMPARE(pace.due(), AllDue);
    QCOMPARE(pace.msUntil(1000000), 0);
}

void tst_DeviceSimParts::endings_data()
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

void tst_DeviceSimParts::endings()
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
    if (ending.closeAfterWait)
        actual += "again";
    if (ending.ignoreTls)
        actual += "rawly";
    if (!ending.reads)
        actual += "unread";
    QCOMPARE(actual.join(' '), steps);
}

void tst_DeviceSimParts::defaults()
{
    const ParsedOptions parsed = parse("");
    QCOMPARE(parsed.error, QString());
    QCOMPARE(parsed.text, QString());
    QCOMPARE(parsed.options.host, QStringLiteral("127.0.0.1"));
    QCOMPARE(parsed.options.port, quint16(7446));
    QCOMPARE(parsed.options.connections, quint64(1));
    QCOMPARE(parsed.options.messages, quint64(1));
    QVERIFY(parsed.options.close == CloseMode::Close);
    QVERIFY(parsed.options.framing == Framing::Lines);
    QVERIFY(!parsed.options.tls.enabled);
}

void tst_DeviceSimParts::readsOptions()
{
    const Options options =
            parse("--host ::1 --port 1234 --connections 3000 --parallel 50 --connect-rate 2.5 "
                  "--connect-timeout-ms 9 --messages 20 --reconnect 4 --size 0 --framing length "
                  "--rate 0.5 --segments byte --seed 77 --pause-ms 2-30 --close stay "
                  "--linger-ms 0 --output json --quiet --no-checksum --tls --ca a --cert b "
                  "--key c --tls-version 1.3 --insecure --server-name n "
                  "--fault close-without-reading")
                    .options;
    QCOMPARE(options.host, QStringLiteral("::1"));
    QCOMPARE(options.port, quint16(1234));
    QCOMPARE(options.connections, quint64(3000));
    QCOMPARE(options.parallel, quint64(50));
    QCOMPARE(options.connectRate, 2.5);
    QCOMPARE(options.connectTimeoutMs, 9);
    QCOMPARE(options.messages, quint64(20));
    QCOMPARE(options.reconnect, quint64(4));
    QCOMPARE(options.size, 0);
    QVERIFY(options.framing == Framing::Length);
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
    QCOMPARE(options.tls.serverName, QStringLiteral("n"));
    QVERIFY(options.fault == Fault::CloseWithoutReading);

    const Options onePause = parse("--pause-ms 5").options;
    QCOMPARE(onePause.pauseMinMs, 5);
    QCOMPARE(onePause.pauseMaxMs, 5);
}

void tst_DeviceSimParts::bindsToRanges()
{
    const Options options = parse("--bind 127.0.0.254-127.0.1.1 --bind ::1").options;
    const QList<QHostAddress> expected{
            QHostAddress(QStringLiteral("127.0.0.254")),
            QHostAddress(QStringLiteral("127.0.0.255")), QHostAddress(QStringLiteral("127.0.1.0")),
            QHostAddress(QStringLiteral("127.0.1.1")), QHostAddress(QStringLiteral("::1"))};
    QCOMPARE(options.sources, expected);
}

void tst_DeviceSimParts::rejects_data()
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
    row("--size 1e3", "--size: not a number in range: 1e3");
    row("--size 2000000000", "--size: not a number in range: 2000000000");
    row("--rate -1", "--rate: not a number in range: -1");
    row("--rate nan", "--rate: not a number in range: nan");
    row("--rate inf", "--rate: not a number in range: inf");
    row("--linger-ms -1", "--linger-ms: not a number in range: -1");
    row("--framing xml", "--framing: unknown value: xml; it takes lines, length");
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
    row("--tls --cert file", "--cert and --key need each other");
    row("--fault abort-handshake", "--fault abort-handshake needs --tls");
    row("--fault garbage --size 0", "--fault garbage needs a --size");
}

void tst_DeviceSimParts::rejects()
{
    QFETCH(const QByteArray, commandLine);
    QFETCH(const QString, error);
    QCOMPARE(parse(commandLine.constData()).error, error);
}

// These complaints are Qt's.
void tst_DeviceSimParts::rejectsWhatItCannotParse()
{
    for (const char *commandLine : {"--nonsense", "--port"}) {
        const QString error = parse(commandLine).error;
        QVERIFY2(error.contains(QLatin1String(commandLine + 2)), qPrintable(error));
    }
}

void tst_DeviceSimParts::helpsAndTellsItsVersion()
{
    const QString help = parse("--help").text;
    QVERIFY(help.contains(QStringLiteral("d<device>-<number> <padding>")));
    QVERIFY(help.contains(QStringLiteral("--connect-rate")));
    QCOMPARE(parse("-h").text, help);
    QVERIFY(!parse("--version").text.isEmpty());
}

QTEST_GUILESS_MAIN(tst_DeviceSimParts)
#include "tst_devicesimparts.moc"
