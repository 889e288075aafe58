// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "recording/checksum.h"
#include "recording/compression.h"
#include "recording/format.h"
#include "recording/recordingwriter.h"
#include "tests/recording/filesizelimit.h"
#include "tests/recording/recordingtest.h"

#include <QtCore/QTemporaryDir>
#include <QtCore/QtEndian>
#include <QtTest/QtTest>

#include <sys/stat.h>

using namespace recording;
using namespace recordingtest;
using State = RecordingReader::State;

namespace {

constexpr qint64 StartUs = 1'700'000'000'000'000;

QStringList words(const char *text)
{
    return QString::fromLatin1(text).split(QLatin1Char(' '));
}

QString damagedBehind(qsizetype bytes)
{
    return QStringLiteral("it is damaged behind its first %1 bytes").arg(bytes);
}

// As a header has it.
QByteArray checksumOf(const QByteArray &bytes)
{
    QByteArray sum(4, '\0');
    qToLittleEndian<quint32>(crc32c(bytes), sum.data());
    return sum;
}

} // namespace

class tst_RecordingWriter : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init();
    void continuesAtEveryCut();
    void leavesOthersAlone();
    void putsDamagedOnesAside_data();
    void putsDamagedOnesAside();
    void putsLargeOnesAside();
    void oneRecorderAFile();
    void anyNumberADevice();
    void rotates_data();
    void rotates();
    void sessionsDoNotFillFiles();
    void deletesAllButTheNewest();
    void leavesOtherNamesAlone();
    void stopsAtTheLastNumber();
    void goesOnAfterAFullDisk();
    void fileIsPrivate();

private:
    void setContent(const QByteArray &content) const;
    QStringList names() const;
    void make(const QStringList &others) const;
    void write(const WriterOptions &options, const QList<QList<Entry>> &batches);

    QScopedPointer<QTemporaryDir> folder;
    QString name;
};

void tst_RecordingWriter::init()
{
    folder.reset(new QTemporaryDir);
    name = folder->filePath(QStringLiteral("traffic"));
}

void tst_RecordingWriter::setContent(const QByteArray &content) const
{
    QFile file(name);
    QVERIFY(file.open(QIODevice::WriteOnly | QIODevice::Truncate));
    QCOMPARE(file.write(content), content.size());
}

QStringList tst_RecordingWriter::names() const
{
    return QDir(folder->path()).entryList(QDir::Files);
}

// Files with these names.
void tst_RecordingWriter::make(const QStringList &others) const
{
    for (const QString &other : others) {
        QFile file(folder->filePath(other));
        QVERIFY(file.open(QIODevice::WriteOnly));
        file.write(other.toUtf8());
    }
}

void tst_RecordingWriter::write(const WriterOptions &options, const QList<QList<Entry>> &batches)
{
    RecordingWriter writer(options);
    QVERIFY2(writer.open(name, StartUs), qPrintable(writer.errorString()));
    for (const QList<Entry> &batch : batches)
        QVERIFY2(writer.write(encoded(batch)), qPrintable(writer.errorString()));
}

void tst_RecordingWriter::continuesAtEveryCut()
{
    write({}, {{begin(1), bytes(1, 0, "first\n"), bytes(1, 6, "second\n")}});
    const QByteArray whole = contentOf(name);
    for (qsizetype size = 0; size <= whole.size(); ++size) {
        setContent(whole.first(size));
        const QList<Entry> before = readFile(name).entries;

        write({}, {{begin(1), end(1, 0, "peer")}});
        const Contents after = readFile(name);
        QCOMPARE(after.state, State::CleanEnd);
        QVERIFY(areSame(after.entries.first(before.size()), before));
        QCOMPARE(after.entries.size(), before.size() + 3);
        const Entry session = after.entries.at(before.size());
        QCOMPARE(session.type, Entry::Session);
        QVERIFY(!session.continues); // what was open before is over
    }
}

void tst_RecordingWriter::leavesOthersAlone()
{
    write({}, {{begin(1), bytes(1, 0, "first\n"), bytes(1, 6, "second\n")}});
    QByteArray newer = contentOf(name);
    newer[8] = 2;
    newer.replace(12, 4, checksumOf(newer.first(12)));
    const QByteArray image = QByteArray(4096, '\0') + "something else";
    for (const QByteArray &content : {newer, QByteArray("A text, and no recording.\n"), image}) {
        setContent(content);
        RecordingWriter writer({});
        QVERIFY(!writer.open(name, StartUs));
        QVERIFY(!writer.errorString().isEmpty());
        QCOMPARE(contentOf(name), content);
    }
    RecordingWriter nowhere({});
    QVERIFY(!nowhere.open(folder->filePath(QStringLiteral("missing/traffic")), StartUs));
    QCOMPARE(nowhere.errorString(), qt_error_string(ENOENT));
}

void tst_RecordingWriter::putsDamagedOnesAside_data()
{
    QTest::addColumn<QByteArray>("content");
    QTest::addColumn<QString>("reason");
    const QByteArray whole = fileOf({Entry(), begin(1), bytes(1, 0, "first\n")});
    QByteArray changed = whole;
    changed[40] = static_cast<char>(changed[40] ^ 1);
    QTest::newRow("a byte has changed") << changed << damagedBehind(16 + 9 + 3);
    QTest::newRow("in its header") << QByteArray(whole).replace(9, 1, "\xff") << damagedBehind(0);
    // What a file system may leave when the power has failed.
    QTest::newRow("zeros at the end")
            << whole + QByteArray(4096, '\0') << damagedBehind(whole.size());
    QTest::newRow("few zeros at the end")
            << whole + QByteArray(5, '\0') << damagedBehind(whole.size());
    QTest::newRow("zeros alone") << QByteArray(100'000, '\0')
                                 << QStringLiteral("it has nothing but zeros");
}

void tst_RecordingWriter::putsDamagedOnesAside()
{
    QFETCH(const QByteArray, content);
    setContent(content);
    make(words("traffic.3"));
    RecordingWriter writer({});
    QVERIFY2(writer.open(name, StartUs), qPrintable(writer.errorString()));
    QVERIFY(writer.write(encoded({begin(2)})));
    QCOMPARE(names(), words("traffic traffic.3 traffic.4"));
    QCOMPARE(contentOf(name + QStringLiteral(".4")), content);
    QCOMPARE(writer.putAside().name, name + QStringLiteral(".4"));
    QTEST(writer.putAside().reason, "reason");
    const Contents contents = readFile(name);
    QCOMPARE(contents.state, State::CleanEnd);
    QVERIFY(!contents.entries.first().continues);
    QCOMPARE(contents.count(Entry::Begin), 1);
    RecordingWriter second({});
    QVERIFY(!second.open(name, StartUs)); // the new one is locked like any other
}

// Reading them would hold up the start.
void tst_RecordingWriter::putsLargeOnesAside()
{
    constexpr qint64 Size = qint64(1024) * 1024 * 1024 + 1;
    for (const bool isRecording : {false, true}) {
        setContent(isRecording ? fileOf({Entry(), begin(1)})
                               : QByteArray("A text, no recording\n"));
        QVERIFY(QFile::resize(name, Size)); // takes no room on the disk
        RecordingWriter writer({});
        QCOMPARE(writer.open(name, StartUs), isRecording);
        QCOMPARE(names(), words(isRecording ? "traffic traffic.1" : "traffic"));
        QCOMPARE(writer.putAside().name, isRecording ? name + QStringLiteral(".1") : QString());
        QCOMPARE(writer.putAside().reason,
                 isRecording ? QStringLiteral("it has 1073741825 bytes") : QString());
    }
    QCOMPARE(QFileInfo(name + QStringLiteral(".1")).size(), Size);
}

void tst_RecordingWriter::oneRecorderAFile()
{
    RecordingWriter first({});
    QVERIFY(first.open(name, StartUs));
    RecordingWriter second({});
    QVERIFY(!second.open(name, StartUs));
    QCOMPARE(second.errorString(), QStringLiteral("another program records to it"));
}

// Other than files and pipes, they are not the recorder's.
void tst_RecordingWriter::anyNumberADevice()
{
    RecordingWriter first({});
    QVERIFY(first.open(QStringLiteral("/dev/null"), StartUs));
    RecordingWriter second({});
    QVERIFY2(second.open(QStringLiteral("/dev/null"), StartUs), qPrintable(second.errorString()));
}

void tst_RecordingWriter::rotates_data()
{
    QTest::addColumn<bool>("compressed");
    QTest::addColumn<int>("keep");
    QTest::newRow("plain") << false << 0;
    QTest::newRow("keeps two") << false << 2;
    if (canCompress())
        QTest::newRow("compressed") << true << 0;
}

void tst_RecordingWriter::rotates()
{
    QFETCH(const bool, compressed);
    QFETCH(const int, keep);
    constexpr int Batches = 10;
    WriterOptions options;
    options.fileBytes = 1; // each batch goes to a file of its own
    options.keep = keep;
    options.compress = compressed;
    QList<QList<Entry>> batches = {{begin(1), begin(2), end(2, 0, "idle")}};
    while (batches.size() < Batches)
        batches.append({bytes(1, static_cast<quint64>(batches.size() - 1), "x")});
    write(options, batches);

    qint64 timeUs = StartUs;
    for (int number = 1; number <= Batches; ++number) {
        const QString file = number == Batches ? name : name + QStringLiteral(".%1").arg(number);
        const bool isKept = keep == 0 || number >= Batches - keep;
        QCOMPARE(QFile::exists(file), isKept);
        if (!isKept) {
            timeUs += number == 1 ? 10 + 3'000'000 : 1500;
            continue;
        }
        const Contents contents = readFile(file);
        QCOMPARE(contents.state, State::CleanEnd);
        QCOMPARE(contents.entries.first().timeUs, timeUs);
        QCOMPARE(contents.entries.first().continues, number > 1);
        if (number == 1) {
            QVERIFY(areSame(contents.entries.mid(1), batches.first()));
        } else { // what is still open is repeated
            QCOMPARE(contents.entries.size(), 3);
            Entry repeated = begin(1);
            repeated.elapsedUs = 0;
            repeated.wasOpen = true;
            repeated.position = static_cast<quint64>(number - 2);
            QVERIFY(isSame(contents.entries.at(1), repeated));
            QVERIFY(isSame(contents.entries.at(2), batches.at(number - 1).first()));
        }
        timeUs = contents.entries.last().timeUs;
    }
    QVERIFY(!QFile::exists(name + QStringLiteral(".%1").arg(Batches)));
}

// What a new file repeats is longer than a file may be.
void tst_RecordingWriter::sessionsDoNotFillFiles()
{
    constexpr quint64 Connections = 200;
    WriterOptions options;
    options.fileBytes = 4000;
    QList<Entry> begins;
    for (quint64 number = 1; number <= Connections; ++number)
        begins += begin(number);
    QList<QList<Entry>> batches = {begins};
    for (quint64 position = 0; position < 5000; position += 500)
        batches.append({bytes(1, position, QByteArray(500, 'x'))});
    write(options, batches);
    QCOMPARE(names(), words("traffic traffic.1 traffic.2"));
    QVERIFY(QFileInfo(name + QStringLiteral(".2")).size() > 4000 + 500);
}

void tst_RecordingWriter::deletesAllButTheNewest()
{
    make(words("traffic.1 traffic.2 traffic.3 traffic.5 traffic.6 traffic.7"));
    WriterOptions options;
    options.fileBytes = 1;
    options.keep = 2;
    write(options, {{begin(1)}, {bytes(1, 0, "x")}});
    QCOMPARE(names(), words("traffic traffic.7 traffic.8"));
}

void tst_RecordingWriter::leavesOtherNamesAlone()
{
    const QStringList others = words("traffic.+3 traffic.-2147483648 traffic.0 traffic.007 "
                                     "traffic.20261123 traffic.2147483647 traffic.a traffic1");
    make(others);
    WriterOptions options;
    options.fileBytes = 1;
    options.keep = 1;
    write(options, {{begin(1)}, {bytes(1, 0, "x")}, {bytes(1, 1, "y")}});
    QStringList expected = others + words("traffic traffic.2");
    expected.sort();
    QStringList found = names();
    found.sort();
    QCOMPARE(found, expected);
    for (const QString &other : others)
        QCOMPARE(contentOf(folder->filePath(other)), other.toUtf8());
}

// The file then grows.
void tst_RecordingWriter::stopsAtTheLastNumber()
{
    make(words("traffic.9999999"));
    WriterOptions options;
    options.fileBytes = 1;
    options.keep = 1;
    write(options, {{begin(1)}, {bytes(1, 0, "x")}});
    QCOMPARE(names(), words("traffic traffic.9999999"));
    QCOMPARE(readFile(name).entries.size(), 3);
}

// What could not be written leaves no half entry, and the next session says what is open.
void tst_RecordingWriter::goesOnAfterAFullDisk()
{
    RecordingWriter writer({});
    QVERIFY(writer.open(name, StartUs));
    QVERIFY(writer.write(encoded({begin(1), begin(2)})));
    const QByteArray before = contentOf(name);
    {
        const FileSizeLimit limit(static_cast<rlim_t>(before.size()) + 20); // ends within an entry
        const QByteArray lost =
                encoded({bytes(1, 0, QByteArray(100, 'x')), end(2, 0, "peer"), begin(3)});
        QVERIFY(!writer.write(lost));
        QCOMPARE(writer.errorString(), qt_error_string(EFBIG));
        QCOMPARE(contentOf(name), before);
    }
    QVERIFY(writer.write(encoded({bytes(1, 100, "y")})));
    const Contents contents = readFile(name);
    QCOMPARE(contents.state, State::CleanEnd);
    QCOMPARE(contents.entries.size(), 3 + 4);
    QVERIFY(contents.entries.at(3).continues);
    QSet<quint64> open;
    for (const Entry &entry : contents.entries.mid(4, 2)) {
        QVERIFY(entry.type == Entry::Begin && entry.wasOpen);
        open.insert(entry.connection);
    }
    QCOMPARE(open, (QSet<quint64>{1, 3}));
    QCOMPARE(contents.entries.last().bytes, QByteArray("y"));
    QCOMPARE(contents.entries.last().timeUs, StartUs + 10 + 1500 + 3'000'000 + 5 + 1500);
}

void tst_RecordingWriter::fileIsPrivate()
{
    ::umask(022);
    write({}, {{begin(1)}});
    QCOMPARE(QFile::permissions(name) & (QFile::ReadOther | QFile::WriteOther | QFile::WriteGroup),
             QFile::Permissions());
}

QTEST_GUILESS_MAIN(tst_RecordingWriter)
#include "tst_recordingwriter.moc"
