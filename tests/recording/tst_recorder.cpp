// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "recording/compression.h"
#include "recording/recorder.h"
#include "tests/kit/hangguard.h"
#include "tests/recording/filesizelimit.h"
#include "tests/recording/recordingtest.h"

#include <QtCore/QTemporaryDir>
#include <QtTest/QtTest>

#include <atomic>
#include <limits>
#include <thread>
#include <vector>

#include <fcntl.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace recording;
using namespace recordingtest;
using State = RecordingReader::State;

namespace {

// A batch fills a pipe, which takes 64 KiB, several times.
constexpr qsizetype SmallQueue = 300'000;
constexpr qsizetype BatchBytes = 250'000;

const Endpoints SomePeer = {"192.0.2.7", 50123, "192.0.2.1", 7446};
const Endpoints OtherPeer = {"192.0.2.8", 50124, "192.0.2.1", 7446};

//! What a recorder has told.
struct Notes
{
    std::atomic<int> dropping = 0;
    std::atomic<int> resumed = 0;
    std::atomic<quint64> missing = 0;
    std::atomic<quint64> missingAtEnd = 0;

    RecorderNotices notices()
    {
        return {[this](const QString &) { ++dropping; },
                [this](quint64 bytes) {
                    missing += bytes;
                    ++resumed;
                },
                [this](quint64 bytes) { missingAtEnd += bytes; }};
    }
};

//! The reading end of a pipe that has a name.
class NamedPipe
{
public:
    explicit NamedPipe(const QString &name)
    {
        if (::mkfifo(QFile::encodeName(name).constData(), 0600) != 0)
            qFatal("No pipe");
        fd = ::open(QFile::encodeName(name).constData(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    }
    ~NamedPipe() { ::close(fd); }
    Q_DISABLE_COPY_MOVE(NamedPipe)

    QByteArray readAll() const
    {
        QByteArray all;
        read(all, std::numeric_limits<qsizetype>::max());
        return all;
    }
    // Appends what comes, until all has so many bytes, or few more, or nothing comes any more.
    void read(QByteArray &all, qsizetype enough) const
    {
        constexpr int NothingMoreMs = 50;
        pollfd request = {fd, POLLIN, 0};
        char bytes[4096];
        while (all.size() < enough && ::poll(&request, 1, NothingMoreMs) > 0) {
            const ssize_t size = ::read(fd, bytes, sizeof bytes);
            if (size <= 0)
                return;
            all.append(bytes, size);
        }
    }
    // The writer then waits for a reader.
    bool isFull() const
    {
        int size = 0;
        return ::ioctl(fd, FIONREAD, &size) == 0 && size == ::fcntl(fd, F_GETPIPE_SZ);
    }

private:
    int fd = -1;
};

quint64 missingIn(const Contents &contents)
{
    quint64 missing = 0;
    for (const Entry &entry : contents.entries)
        missing += entry.type == Entry::Gap ? entry.size : 0;
    return missing;
}

} // namespace

class tst_Recorder : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init();
    void recordsFromSeveralThreads_data();
    void recordsFromSeveralThreads();
    void writesWhileItRuns();
    void leavesOutPayload();
    void refuses();
    void neverWaitsForAPipe();
    void tellsEveryLoss();
    void knowsWhatIsOpenAfterAGap();
    void tellsAFullTargetOnce();
    void endsWithItsGap();
    void aStuckPipeDoesNotHoldTheEnd();

private:
    QScopedPointer<QTemporaryDir> folder;
    QString name;
};

void tst_Recorder::init()
{
    folder.reset(new QTemporaryDir);
    name = folder->filePath(QStringLiteral("traffic"));
}

void tst_Recorder::recordsFromSeveralThreads_data()
{
    QTest::addColumn<bool>("compressed");
    QTest::newRow("plain") << false;
    if (canCompress())
        QTest::newRow("compressed") << true;
}

void tst_Recorder::recordsFromSeveralThreads()
{
    QFETCH(const bool, compressed);
    constexpr quint64 Threads = 4;
    constexpr quint64 Messages = 5000;
    Notes notes;
    WriterOptions options;
    options.compress = compressed;
    Recorder recorder(options, notes.notices());
    QVERIFY2(recorder.start(name), qPrintable(recorder.errorString()));
    const auto play = [&recorder](quint64 connection) {
        recorder.begin(connection, SomePeer);
        quint64 position = 0;
        for (quint64 number = 0; number < Messages; ++number) {
            const QByteArray message = QByteArray::number(number) + '\n';
            recorder.bytes(connection, position, message);
            position += static_cast<quint64>(message.size());
        }
        recorder.end(connection, position, "peer");
    };
    std::vector<std::thread> threads;
    for (quint64 number = 1; number <= Threads; ++number)
        threads.emplace_back(play, number);
    for (std::thread &thread : threads)
        thread.join();
    recorder.finish();

    QByteArray expected;
    for (quint64 number = 0; number < Messages; ++number)
        expected += QByteArray::number(number) + '\n';
    const Contents contents = readFile(name);
    QCOMPARE(contents.state, State::CleanEnd);
    for (quint64 number = 1; number <= Threads; ++number)
        QCOMPARE(contents.bytesOf(number), expected);
    QCOMPARE(contents.count(Entry::Begin), qsizetype(Threads));
    QCOMPARE(contents.count(Entry::End), qsizetype(Threads));
    QCOMPARE(notes.dropping.load(), 0);
}

// Without anything that would make it: so a killed process leaves it behind.
void tst_Recorder::writesWhileItRuns()
{
    Recorder recorder({}, {});
    QVERIFY(recorder.start(name));
    recorder.begin(1, SomePeer);
    recorder.bytes(1, 0, "hello\n");
    QTRY_COMPARE_WITH_TIMEOUT(readFile(name).bytesOf(1), QByteArray("hello\n"), HangGuardMs);
    recorder.bytes(1, 6, "more\n");
    QTRY_COMPARE_WITH_TIMEOUT(readFile(name).bytesOf(1), QByteArray("hello\nmore\n"), HangGuardMs);
}

void tst_Recorder::leavesOutPayload()
{
    WriterOptions options;
    options.withPayload = false;
    Recorder recorder(options, {});
    QVERIFY(recorder.start(name));
    recorder.begin(1, SomePeer);
    recorder.bytes(1, 0, "secret");
    recorder.finish();
    QVERIFY(!contentOf(name).contains("secret"));
    const Contents contents = readFile(name);
    QVERIFY(contents.entries.first().leavesOutPayload);
    QCOMPARE(contents.entries.last().type, Entry::Length);
    QCOMPARE(contents.entries.last().size, quint64(6));
}

void tst_Recorder::refuses()
{
    Recorder recorder({}, {});
    QVERIFY(!recorder.start(folder->path()));
    QVERIFY(!recorder.errorString().isEmpty());
}

// The pipe takes 64 KiB, and the queue is small. What the reader gets has a gap where bytes are
// missing, and counts them.
void tst_Recorder::neverWaitsForAPipe()
{
    const NamedPipe pipe(name);
    Notes notes;
    Recorder recorder({}, notes.notices(), SmallQueue);
    QVERIFY(recorder.start(name));
    recorder.begin(1, SomePeer);
    const QByteArray payload(1000, 'x');
    quint64 position = 0;
    // Nobody reads, so each of these calls returned by itself.
    for (int number = 0; number < 2000; ++number, position += 1000)
        recorder.bytes(1, position, payload);
    QCOMPARE(notes.dropping.load(), 1);
    QCOMPARE(notes.resumed.load(), 0);

    QByteArray read;
    const auto readOn = [&pipe, &read, &notes] {
        read += pipe.readAll();
        return notes.resumed == 1;
    };
    recorder.begin(2, SomePeer); // what there is room for comes behind the gap
    QTRY_VERIFY_WITH_TIMEOUT(readOn(), HangGuardMs);
    recorder.bytes(1, position, "the last");
    recorder.finish();
    read += pipe.readAll();

    const Contents contents = readBytes(read);
    QCOMPARE(contents.state, State::CleanEnd);
    const quint64 missing = missingIn(contents);
    quint64 recorded = 0;
    quint64 entries = 0; // with bytes, those that are missing included
    QList<quint64> begun;
    for (const Entry &entry : contents.entries) {
        entries += entry.type == Entry::Gap ? entry.entries : quint64(entry.type == Entry::Bytes);
        recorded += entry.type == Entry::Gap ? 0 : entry.size;
        if (entry.type == Entry::Begin && !entry.wasOpen)
            begun += entry.connection;
    }
    QCOMPARE(begun, (QList<quint64>{1, 2}));
    QCOMPARE(missing, notes.missing.load());
    QVERIFY(missing > 0);
    QCOMPARE(recorded + missing, position + 8);
    QCOMPARE(entries, quint64(2001));
    QCOMPARE(contents.entries.last().bytes, QByteArray("the last"));
    QCOMPARE(contents.entries.last().position, position);
}

// While a gap is written, another one waits already.
void tst_Recorder::tellsEveryLoss()
{
    const NamedPipe pipe(name);
    Notes notes;
    Recorder recorder({}, notes.notices(), SmallQueue);
    QVERIFY(recorder.start(name));
    recorder.bytes(1, 0, QByteArray(BatchBytes, 'x'));
    QTRY_VERIFY_WITH_TIMEOUT(pipe.isFull(), HangGuardMs);
    quint64 position = BatchBytes;
    const auto loseBytes = [&recorder, &notes, &position](int times) {
        for (; notes.dropping == 0 || times > 0; position += 1000, --times)
            recorder.bytes(1, position, QByteArray(1000, 'x'));
    };
    loseBytes(0);
    recorder.begin(2, SomePeer); // goes into the reserve, behind the first gap
    loseBytes(1);

    QByteArray read;
    const auto hasTakenQueue = [&pipe, &read] {
        pipe.read(read, BatchBytes + 10'000);
        return read.size() >= BatchBytes + 10'000;
    };
    QTRY_VERIFY_WITH_TIMEOUT(hasTakenQueue(), HangGuardMs);
    recorder.bytes(1, position, "the last"); // behind the second gap
    const auto hasResumed = [&pipe, &read, &notes] {
        read += pipe.readAll();
        return notes.resumed > 0;
    };
    QTRY_VERIFY_WITH_TIMEOUT(hasResumed(), HangGuardMs);
    recorder.finish();
    const Contents contents = readBytes(read + pipe.readAll());
    QCOMPARE(contents.count(Entry::Gap), 2);
    QCOMPARE(notes.missing.load(), missingIn(contents));
    QCOMPARE(notes.dropping.load(), 1);
    QCOMPARE(notes.resumed.load(), 1);
}

// Beginnings and ends are among what is missing.
void tst_Recorder::knowsWhatIsOpenAfterAGap()
{
    const NamedPipe pipe(name);
    Notes notes;
    Recorder recorder({}, notes.notices(), SmallQueue);
    QVERIFY(recorder.start(name));
    recorder.begin(1, SomePeer);
    recorder.begin(2, SomePeer);
    recorder.bytes(2, 0, QByteArray(BatchBytes, 'x'));
    QTRY_VERIFY_WITH_TIMEOUT(pipe.isFull(), HangGuardMs);
    while (notes.dropping == 0) // the reserve is full, too
        recorder.end(99, 0, QByteArray(MaxTextBytes, 'x'));
    recorder.end(1, 0, "peer");
    recorder.begin(3, OtherPeer);
    recorder.begin(4, SomePeer);
    recorder.end(4, 0, "peer");

    QByteArray read;
    const auto hasTakenQueue = [&pipe, &read] {
        pipe.read(read, BatchBytes + 10'000);
        return read.size() >= BatchBytes + 10'000;
    };
    QTRY_VERIFY_WITH_TIMEOUT(hasTakenQueue(), HangGuardMs);
    recorder.bytes(3, 5, "later"); // behind the gap
    const auto hasResumed = [&pipe, &read, &notes] {
        read += pipe.readAll();
        return notes.resumed > 0;
    };
    QTRY_VERIFY_WITH_TIMEOUT(hasResumed(), HangGuardMs);
    recorder.finish();
    const Contents contents = readBytes(read + pipe.readAll());
    QCOMPARE(contents.state, State::CleanEnd);
    QHash<quint64, Entry> open;
    for (const Entry &entry : contents.entries.last(2))
        open.insert(entry.connection, entry);
    QCOMPARE(contents.entries.at(contents.entries.size() - 3).type, Entry::Session);
    QCOMPARE(open.value(2).endpoints, SomePeer);
    QCOMPARE(open.value(2).position, quint64(BatchBytes));
    QCOMPARE(open.value(3).endpoints, OtherPeer);
    QCOMPARE(open.value(3).position, quint64(10));
    QVERIFY(open.value(2).wasOpen && open.value(3).wasOpen);
}

// Every write to this device fails.
void tst_Recorder::tellsAFullTargetOnce()
{
    Notes notes;
    Recorder recorder({}, notes.notices());
    QVERIFY(recorder.start(QStringLiteral("/dev/full")));
    recorder.begin(1, SomePeer);
    QTRY_COMPARE_WITH_TIMEOUT(notes.dropping.load(), 1, HangGuardMs);
    recorder.bytes(1, 0, "lost");
    recorder.finish();
    QCOMPARE(notes.dropping.load(), 1);
    QCOMPARE(notes.resumed.load(), 0);
    QCOMPARE(notes.missingAtEnd.load(), quint64(4));
}

// What the recording ends with is too large for the disk; the gap that tells of it is not.
void tst_Recorder::endsWithItsGap()
{
    const FileSizeLimit limit(1000);
    Notes notes;
    Recorder recorder({}, notes.notices());
    QVERIFY(recorder.start(name));
    recorder.bytes(1, 0, QByteArray(4000, 'x'));
    recorder.finish();
    const Contents contents = readFile(name);
    QCOMPARE(missingIn(contents), quint64(4000));
    QCOMPARE(notes.missing.load(), quint64(4000));
    QCOMPARE(notes.missingAtEnd.load(), quint64(0));
}

void tst_Recorder::aStuckPipeDoesNotHoldTheEnd()
{
    const NamedPipe pipe(name);
    Notes notes;
    Recorder recorder({}, notes.notices());
    QVERIFY(recorder.start(name));
    recorder.bytes(1, 0, QByteArray(1024 * 1024, 'x'));
    recorder.finish(); // nobody reads
    QCOMPARE(notes.dropping.load(), 1);
    QCOMPARE(notes.missingAtEnd.load(), quint64(1024 * 1024));
}

QTEST_GUILESS_MAIN(tst_Recorder)
#include "tst_recorder.moc"
