// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "simulator/mutation.h"
#include "simulator/replay.h"
#include "simulator/timetable.h"
#include "tests/kit/hangguard.h"
#include "tests/recording/recordingtest.h"

#include <QtCore/QTemporaryDir>
#include <QtTest/QtTest>

using namespace simulator;
using recording::Entry;
using recordingtest::begin;
using recordingtest::bytes;
using recordingtest::end;

namespace {

constexpr qint64 HourUs = 3'600'000'000;

Entry session(qint64 timeUs, bool continues)
{
    Entry entry;
    entry.type = Entry::Session;
    entry.timeUs = timeUs;
    entry.continues = continues;
    return entry;
}

Entry repeated(quint64 connection, quint64 position)
{
    Entry entry = begin(connection);
    entry.elapsedUs = 0;
    entry.position = position;
    entry.wasOpen = true;
    return entry;
}

QByteArrayList messagesOf(const Replay &replay, quint64 device)
{
    QByteArrayList messages;
    for (quint64 number = 1; number <= replay.messageCount(device); ++number) {
        messages += QByteArray();
        replay.append(messages.last(), device, number);
    }
    return messages;
}

} // namespace

class tst_ReplayParts : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void timetable();
    void timetableWithoutWaiting();
    void playsConnections();
    void followsSessions();
    void tellsWhatIsMissing();
    void tellsWhatGapsTell();
    void playsUpToATear();
    void refuses_data();
    void refuses();
    void mutationIsRepeatable();
    void mutationDoesEachKind();

private:
    Options recorded(const QList<Entry> &entries);

    QTemporaryDir folder;
};

// Makes a recording of these entries.
Options tst_ReplayParts::recorded(const QList<Entry> &entries)
{
    Options options;
    options.replayFile = folder.filePath(QStringLiteral("traffic"));
    QFile file(options.replayFile);
    if (!file.open(QIODevice::WriteOnly) || file.write(recordingtest::fileOf(entries)) < 0)
        qFatal("Cannot write the recording");
    return options;
}

void tst_ReplayParts::timetable()
{
    Timetable table({0, 0, HourUs}, 2);
    table.start();
    QCOMPARE(table.due(), quint64(2));
    QCOMPARE(table.msUntil(1), 0);
    const int ms = table.msUntil(3);
    QVERIFY(ms <= 1'800'000 && ms > 1'000'000);
    QCOMPARE(table.msUntil(4), 0); // there is none
    Timetable late({40'000}, 2);
    late.start();
    QTRY_COMPARE_WITH_TIMEOUT(late.due(), quint64(1), HangGuardMs);
}

void tst_ReplayParts::timetableWithoutWaiting()
{
    Timetable table({0, HourUs}, 0);
    table.start();
    QCOMPARE(table.due(), quint64(2));
    QCOMPARE(table.msUntil(2), 0);
}

void tst_ReplayParts::playsConnections()
{
    const Options options =
            recorded({session(HourUs, false), begin(7), bytes(7, 0, "a\n"), begin(3),
                      bytes(3, 0, "x"), bytes(7, 2, "b\n"), end(7, 4, "reset"), end(3, 1, "idle")});
    Replay replay(options);
    QVERIFY2(replay.load(), qPrintable(replay.errorString()));
    QCOMPARE(replay.warning(), QString());
    QCOMPARE(replay.deviceCount(), quint64(2));
    QCOMPARE(messagesOf(replay, 1), (QByteArrayList{"a\n", "b\n"}));
    QCOMPARE(messagesOf(replay, 2), (QByteArrayList{"x"}));
    QCOMPARE(replay.connectTimes(), (QList<qint64>{0, 1505}));
    QCOMPARE(replay.messageTimes(1), (QList<qint64>{1500, 1500 + 5 + 1500 + 1500}));
    QCOMPARE(replay.restUs(1), 3'000'000);
    QVERIFY(replay.endsWithReset(1) && !replay.endsWithReset(2));
    QCOMPARE(replay.restUs(2), 1500 + 2 * 3'000'000);
}

// A connection that a session repeats goes on; all others are over.
void tst_ReplayParts::followsSessions()
{
    const Options options = recorded({session(HourUs, false), begin(1), begin(2), bytes(1, 0, "a"),
                                      bytes(2, 0, "x"), session(HourUs + 10'000, true),
                                      repeated(1, 1), bytes(1, 1, "b"), begin(2), bytes(2, 0, "y"),
                                      session(2 * HourUs, false), begin(1), bytes(1, 0, "new")});
    Replay replay(options);
    QVERIFY2(replay.load(), qPrintable(replay.errorString()));
    QCOMPARE(replay.warning(), QString());
    QCOMPARE(replay.deviceCount(), quint64(4));
    QCOMPARE(messagesOf(replay, 1), (QByteArrayList{"a", "b"}));
    QCOMPARE(messagesOf(replay, 2), (QByteArrayList{"x"}));
    QCOMPARE(messagesOf(replay, 3), (QByteArrayList{"y"}));
    QCOMPARE(messagesOf(replay, 4), (QByteArrayList{"new"}));
    QCOMPARE(replay.restUs(2), 10'000 - (5 + 5 + 1500 + 1500)); // until the session
    QCOMPARE(replay.restUs(4), 0);
}

void tst_ReplayParts::tellsWhatIsMissing()
{
    const Options options = recorded({session(HourUs, true), repeated(1, 100), bytes(1, 100, "a"),
                                      bytes(1, 111, "b"), bytes(5, 7, "its beginning is missing"),
                                      end(1, 113, "peer")});
    Replay replay(options);
    QVERIFY2(replay.load(), qPrintable(replay.errorString()));
    QCOMPARE(replay.warning(), QStringLiteral("11 bytes are missing in it"));
    QCOMPARE(replay.deviceCount(), quint64(2));
    QCOMPARE(messagesOf(replay, 1), (QByteArrayList{"a", "b"}));
}

// Positions and gaps mostly tell of the same bytes.
void tst_ReplayParts::tellsWhatGapsTell()
{
    Entry gap;
    gap.type = Entry::Gap;
    gap.size = 30;
    gap.entries = 3;
    const Options options = recorded({session(HourUs, false), begin(1), bytes(1, 0, "a"), gap,
                                      bytes(1, 11, "b"), gap, end(1, 12, "peer")});
    Replay replay(options);
    QVERIFY2(replay.load(), qPrintable(replay.errorString()));
    QCOMPARE(replay.warning(), QStringLiteral("60 bytes are missing in it"));
}

void tst_ReplayParts::playsUpToATear()
{
    const Options options =
            recorded({session(HourUs, false), begin(1), bytes(1, 0, "a"), bytes(1, 1, "b")});
    QFile file(options.replayFile);
    QVERIFY(file.resize(file.size() - 1));
    Replay replay(options);
    QVERIFY2(replay.load(), qPrintable(replay.errorString()));
    QVERIFY2(replay.warning().startsWith(QStringLiteral("it ends within an entry")),
             qPrintable(replay.warning()));
    QCOMPARE(messagesOf(replay, 1), (QByteArrayList{"a"}));
}

void tst_ReplayParts::refuses_data()
{
    QTest::addColumn<QByteArray>("content");
    QTest::addColumn<QString>("reason");
    Entry length;
    length.type = Entry::Length;
    length.connection = 1;
    length.size = 9;
    QTest::newRow("no payload") << recordingtest::fileOf({session(HourUs, false), begin(1), length})
                                << "it was recorded without payload";
    QTest::newRow("no connections")
            << recordingtest::fileOf({session(HourUs, false)}) << "it has no connections";
    QTest::newRow("no recording") << QByteArray("d1-1 abc\n") << "it is no recording";
}

void tst_ReplayParts::refuses()
{
    QFETCH(const QByteArray, content);
    QFETCH(const QString, reason);
    Options options;
    options.replayFile = folder.filePath(QStringLiteral("refused"));
    QFile file(options.replayFile);
    QVERIFY(file.open(QIODevice::WriteOnly));
    file.write(content);
    file.close();
    Replay replay(options);
    QVERIFY(!replay.load());
    QCOMPARE(replay.errorString(),
             QStringLiteral("cannot play %1: %2").arg(options.replayFile, reason));
}

void tst_ReplayParts::mutationIsRepeatable()
{
    QList<Entry> entries = {session(HourUs, false), begin(1), begin(2)};
    QByteArrayList original;
    quint64 position = 0;
    for (int number = 0; number < 50; ++number) {
        const QByteArray line = "line " + QByteArray::number(number) + '\n';
        entries += {bytes(1, position, line), bytes(2, position, line)};
        position += static_cast<quint64>(line.size());
        original += line;
    }
    const auto mutated = [this, &entries](quint32 seed, quint64 device) {
        Options options = recorded(entries);
        options.mutateSeed = seed;
        Replay replay(options);
        if (!replay.load())
            return QByteArrayList();
        const QList<qint64> times = replay.messageTimes(device);
        const bool isAscending = std::is_sorted(times.begin(), times.end());
        const bool fits = static_cast<quint64>(times.size()) == replay.messageCount(device);
        return isAscending && fits ? messagesOf(replay, device) : QByteArrayList();
    };
    QVERIFY(!mutated(1, 1).isEmpty());
    QCOMPARE(mutated(1, 1), mutated(1, 1));
    QVERIFY(mutated(1, 1) != original);
    QVERIFY(mutated(1, 1) != mutated(2, 1));
    QVERIFY(mutated(1, 1) != mutated(1, 2));
}

void tst_ReplayParts::mutationDoesEachKind()
{
    const QByteArray write = "0123456789";
    int same = 0;
    int flipped = 0;
    int dropped = 0;
    int doubled = 0;
    int split = 0;
    Mutation mutation(1, 1);
    for (int round = 0; round < 800; ++round) {
        const QList<QByteArray> writes = mutation.of(write);
        const QByteArray all = writes.join();
        if (writes.size() == 2 && all == write)
            ++split;
        else if (all == write)
            ++same;
        else if (all.size() == write.size() - 1)
            ++dropped;
        else if (all.size() == write.size() + 1)
            ++doubled;
        else if (all.size() == write.size())
            ++flipped;
    }
    QCOMPARE(same + flipped + dropped + doubled + split, 800);
    for (const int kind : {flipped, dropped, doubled, split})
        QVERIFY(kind > 50 && kind < 150);
    QVERIFY(Mutation(1, 1).of("x").size() <= 1);
}

QTEST_GUILESS_MAIN(tst_ReplayParts)
#include "tst_replayparts.moc"
