// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "simulator/messageformat.h"
#include "simulator/options.h"
#include "simulator/outbox.h"
#include "simulator/pace.h"
#include "simulator/progress.h"
#include "tests/kit/hangguard.h"
#include "tests/simulator/partstest.h"

#include <QtTest/QTest>

#include <limits>

using namespace simulator;
using namespace partstest;

namespace {

constexpr quint64 AllDue = std::numeric_limits<quint64>::max();

QByteArray messageOf(const Options &options, quint64 device, quint64 number)
{
    QByteArray message;
    MessageFormat(options).append(message, device, number);
    return message;
}

// Takes all bytes, like a socket that accepts every write. Returns the segments.
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

} // namespace

// Messages, segments and paces.
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
    void writesRates();
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

    // The segments do not depend on how fast messages become due.
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
    Pace pace(0.001); // one event in 1000 s
    QCOMPARE(pace.due(), quint64(1));
    pace.start();
    QCOMPARE(pace.due(), quint64(1));
    QCOMPARE(pace.msUntil(1), 0);
    QVERIFY(pace.msUntil(2) > 0);
    QVERIFY(pace.msUntil(2) <= 1000 * 1000);
    QVERIFY(pace.msUntil(3) > 1000 * 1000);

    Pace fast(1e6);
    fast.start();
    QTRY_VERIFY_WITH_TIMEOUT(fast.due() > 1000, HangGuardMs);
    QCOMPARE(fast.msUntil(1000), 0);
}

void tst_DeviceSimParts::pacesWithoutLimit()
{
    Pace pace(0);
    pace.start();
    QCOMPARE(pace.due(), AllDue);
    QCOMPARE(pace.msUntil(1000000), 0);
}

void tst_DeviceSimParts::writesRates()
{
    QCOMPARE(Progress::rateText(0), QStringLiteral("0"));
    QCOMPARE(Progress::rateText(4.6), QStringLiteral("5"));
    QCOMPARE(Progress::rateText(1234567.2), QStringLiteral("1234567"));
}

QTEST_GUILESS_MAIN(tst_DeviceSimParts)
#include "tst_devicesimparts.moc"
