// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "recording/checksum.h"
#include "recording/compression.h"
#include "recording/format.h"
#include "recording/numbers.h"
#include "recording/recordingwriter.h"
#include "tests/recording/recordingtest.h"

#include <QtCore/QTemporaryDir>
#include <QtTest/QtTest>

#include <limits>

using namespace recording;
using namespace recordingtest;
using State = RecordingReader::State;

namespace {

constexpr qint64 StartUs = 1'700'000'000'000'000;

QList<Entry> everyKind()
{
    Entry length;
    length.type = Entry::Length;
    length.connection = 300;
    length.position = 1;
    length.size = 70000;
    Entry gap;
    gap.type = Entry::Gap;
    gap.elapsedUs = 1;
    gap.size = 1'000'000'000'000;
    gap.entries = 77;
    QByteArray binary;
    for (int byte = 0; byte < 256; ++byte)
        binary += static_cast<char>(byte);
    return {begin(1), bytes(1, 0, "hello\n"), begin(300),          bytes(300, 0, "x"),      length,
            gap,      bytes(1, 6, binary),    end(1, 262, "peer"), end(300, 70001, "reset")};
}

} // namespace

class tst_RecordingFormat : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void checksums();
    void numbers();
    void roundTrip_data();
    void roundTrip();
    void cutAtEveryByte_data() { roundTrip_data(); }
    void cutAtEveryByte();
    void damageAtEveryByte_data() { roundTrip_data(); }
    void damageAtEveryByte();
    void headers();
    void unknownEntriesAreSkipped();
    void largePayloadsAreSplit();
    void amountHasWhatIsMissing();
    void absurdValuesAreDamage_data();
    void absurdValuesAreDamage();

private:
    QByteArray recorded(bool compressed, const QList<QByteArray> &batches);

    QTemporaryDir folder;
    int files = 0;
};

// A file with these batches of entries.
QByteArray tst_RecordingFormat::recorded(bool compressed, const QList<QByteArray> &batches)
{
    const QString name = folder.filePath(QString::number(++files));
    WriterOptions options;
    options.compress = compressed;
    RecordingWriter writer(options);
    if (!writer.open(name, StartUs))
        qFatal("%s", qPrintable(writer.errorString()));
    for (const QByteArray &batch : batches) {
        if (!writer.write(batch))
            qFatal("%s", qPrintable(writer.errorString()));
    }
    return contentOf(name);
}

// The values that the definitions of these check sums give for this text.
void tst_RecordingFormat::checksums()
{
    QCOMPARE(crc32c("123456789"), 0xe3069283U);
    QCOMPARE(crc32c(QByteArray(32, '\0')), 0x8a9136aaU);
    QCOMPARE(crc32c("6789", crc32c("12345")), 0xe3069283U);
    QCOMPARE(crc32c({}), 0U);
    QCOMPARE(crc8("123456789"), quint8(0xfb));
    QCOMPARE(crc32cByTables("123456789"), 0xe3069283U);
    QByteArray bytes;
    for (int size = 0; size < 100; ++size) {
        QCOMPARE(crc32c(bytes, 7), crc32cByTables(bytes, 7));
        bytes += static_cast<char>(size * 37);
    }
}

void tst_RecordingFormat::numbers()
{
    for (const quint64 value : {quint64(0), quint64(127), quint64(128), quint64(16384),
                                std::numeric_limits<quint64>::max()}) {
        char bytes[MaxNumberBytes];
        const qsizetype size = putNumber(bytes, value) - bytes;
        Cursor cursor(QByteArrayView(bytes, size));
        QCOMPARE(cursor.takeNumber(), value);
        QVERIFY(cursor.isGood() && cursor.isAtEnd());
        Cursor cut(QByteArrayView(bytes, size - 1));
        QCOMPARE(cut.takeNumber(), quint64(0));
        QVERIFY(!cut.isGood());
    }
    for (const QByteArray &wrong :
         {QByteArray("\x80\x00", 2), QByteArray(9, '\xff') + '\x02', QByteArray(11, '\x80')}) {
        Cursor cursor(wrong);
        cursor.takeNumber();
        QVERIFY(!cursor.isGood());
    }
}

void tst_RecordingFormat::roundTrip_data()
{
    QTest::addColumn<bool>("compressed");
    QTest::newRow("plain") << false;
    if (canCompress())
        QTest::newRow("compressed") << true;
}

void tst_RecordingFormat::roundTrip()
{
    QFETCH(const bool, compressed);
    const Contents contents = readBytes(recorded(compressed, {encoded(everyKind())}));
    QCOMPARE(contents.state, State::CleanEnd);
    QCOMPARE(contents.error, QString());
    QCOMPARE(contents.entries.first().type, Entry::Session);
    QCOMPARE(contents.entries.first().timeUs, StartUs);
    QVERIFY(areSame(contents.entries.mid(1), everyKind()));
    qint64 time = StartUs;
    for (const Entry &entry : contents.entries) {
        time += entry.elapsedUs;
        QCOMPARE(entry.timeUs, time);
    }
}

void tst_RecordingFormat::cutAtEveryByte()
{
    QFETCH(const bool, compressed);
    // Two batches: two blocks if they are compressed.
    const QByteArray whole = recorded(compressed, {encoded(everyKind()), encoded(everyKind())});
    const Contents all = readBytes(whole);
    QList<qsizetype> counts;
    for (qsizetype size = 0; size < whole.size(); ++size) {
        const Contents part = readBytes(whole.first(size));
        QVERIFY(areSame(part.entries, all.entries.first(part.entries.size())));
        QVERIFY(part.goodBytes <= size);
        // What is good is all that is there, or something is torn.
        QCOMPARE(part.state, part.goodBytes == size && size > 0 ? State::CleanEnd : State::TornEnd);
        QCOMPARE(readBytes(whole.first(part.goodBytes)).entries.size(), part.entries.size());
        if (counts.isEmpty() || counts.last() != part.entries.size())
            counts.append(part.entries.size());
    }
    counts.append(all.entries.size());
    // Each entry is there from the first byte on behind it; of compressed ones each block.
    const qsizetype steps = compressed ? 4 : all.entries.size() + 1;
    QCOMPARE(counts.size(), steps);
    QCOMPARE(counts.last(), 2 * everyKind().size() + 1);
}

void tst_RecordingFormat::damageAtEveryByte()
{
    QFETCH(const bool, compressed);
    const QByteArray whole = recorded(compressed, {encoded(everyKind())});
    const Contents all = readBytes(whole);
    for (qsizetype at = 0; at < whole.size(); ++at) {
        for (const int change : {0x01, 0x80, 0xff}) {
            QByteArray damaged = whole;
            damaged[at] = static_cast<char>(damaged[at] ^ change);
            const Contents read = readBytes(damaged);
            QVERIFY2(read.state == State::Damaged || (at < 8 && read.state == State::NoRecording),
                     qPrintable(QStringLiteral("byte %1: %2").arg(at).arg(read.error)));
            QVERIFY(read.goodBytes <= at);
            QVERIFY(areSame(read.entries, all.entries.first(read.entries.size())));
        }
    }
}

void tst_RecordingFormat::headers()
{
    QCOMPARE(readBytes({}).state, State::TornEnd);
    QCOMPARE(readBytes("GET / HTTP/1.1\r\n\r\n").state, State::NoRecording);
    QCOMPARE(readBytes(fileHeader()).state, State::CleanEnd);
    QCOMPARE(readBytes(QByteArray(1000, '\0')).state, State::NoRecording);
    QCOMPARE(readBytes(fileHeader() + QByteArray(1000, '\0')).state, State::Damaged);

    QByteArray newer = fileHeader();
    newer[8] = 2;
    const quint32 checksum = qToLittleEndian(crc32c(QByteArrayView(newer).first(12)));
    newer.replace(12, 4, reinterpret_cast<const char *>(&checksum), 4);
    QCOMPARE(readBytes(newer).state, State::OtherVersion);
}

void tst_RecordingFormat::unknownEntriesAreSkipped()
{
    QByteArray batch = encoded({begin(1)});
    appendEntry(batch, static_cast<Entry::Type>(99), "\x07 and what nobody knows yet");
    batch += encoded({bytes(1, 0, "a")});
    const Contents contents = readBytes(recorded(false, {batch}));
    QCOMPARE(contents.state, State::CleanEnd);
    QCOMPARE(contents.entries.size(), 3);
    QCOMPARE(contents.entries.last().timeUs, StartUs + 5 + 7 + 1500); // its time counts
}

void tst_RecordingFormat::largePayloadsAreSplit()
{
    const QByteArray large(3 * MaxPieceBytes + 1, 'x');
    for (const bool withPayload : {true, false}) {
        QByteArray batch;
        appendBytes(batch, 9, 1, 10, large, withPayload);
        const Contents contents = readBytes(recorded(canCompress(), {batch}));
        QCOMPARE(contents.state, State::CleanEnd);
        QCOMPARE(contents.count(withPayload ? Entry::Bytes : Entry::Length), 4);
        quint64 position = 10;
        for (const Entry &piece : contents.entries.mid(1)) {
            QCOMPARE(piece.position, position);
            position += piece.size;
        }
        QCOMPARE(position, quint64(10 + large.size()));
        QCOMPARE(amountIn(batch).bytes, quint64(large.size()));
        QCOMPARE(amountIn(batch).entries, quint64(4));
    }
}

void tst_RecordingFormat::amountHasWhatIsMissing()
{
    Entry gap;
    gap.type = Entry::Gap;
    gap.size = 100;
    gap.entries = 20;
    const Amount amount = amountIn(encoded({begin(1), gap, bytes(1, 100, "abc")}));
    QCOMPARE(amount.bytes, quint64(103));
    QCOMPARE(amount.entries, quint64(22));
}

void tst_RecordingFormat::absurdValuesAreDamage_data()
{
    QTest::addColumn<QByteArray>("body");
    QTest::addColumn<int>("type");
    QTest::newRow("empty") << QByteArray() << int(Entry::Bytes);
    QTest::newRow("no position") << QByteArray("\1\1") << int(Entry::Bytes);
    QTest::newRow("time") << QByteArray(8, '\xff') + "\x7f\1\1" << int(Entry::Bytes);
    QTest::newRow("port") << QByteArray("\0\1\0\0\1a\xff\xff\x7f\1b\1", 12) << int(Entry::Begin);
    QTest::newRow("text") << QByteArray("\0\1\0\x7fpeer", 8) << int(Entry::End);
    QTest::newRow("block") << QByteArray("\xff\xff\x7f", 3) << int(Entry::Block);
    QTest::newRow("not compressed") << QByteArray("\x10hello") << int(Entry::Block);
}

void tst_RecordingFormat::absurdValuesAreDamage()
{
    QFETCH(const QByteArray, body);
    QFETCH(const int, type);
    QByteArray entry;
    appendEntry(entry, static_cast<Entry::Type>(type), body);
    QByteArray file = fileHeader();
    QByteArrayView view = entry;
    appendFrame(file, *takeEntry(view));
    const Contents contents = readBytes(file);
    const bool isUnreadable = type == Entry::Block && !canCompress();
    QCOMPARE(contents.state, isUnreadable ? State::NotReadable : State::Damaged);
    QCOMPARE(contents.goodBytes, qint64(HeaderBytes));
    QVERIFY(contents.entries.isEmpty());
}

QTEST_GUILESS_MAIN(tst_RecordingFormat)
#include "tst_recordingformat.moc"
