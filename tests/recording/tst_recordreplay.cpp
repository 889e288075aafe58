// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "tests/host/inputhosttest.h"
#include "tests/kit/certificates.h"
#include "tests/recording/recordingtest.h"

#include <QtTest/QtTest>

#include <algorithm>

using namespace inputhosttest;
using recording::Entry;

namespace {

// The messages of each connection, in their order; the connections in an order of their own.
using Messages = QList<QStringList>;

Messages messagesOf(Host &host)
{
    QHash<QString, QStringList> byClient;
    const QByteArrayList lines = host.lines();
    for (const QByteArray &line : lines) {
        const QJsonObject message = QJsonDocument::fromJson(line).object();
        const QString partial = message.contains(QStringLiteral("partial"))
                ? QStringLiteral("partial ")
                : QString();
        byClient[message.value(QStringLiteral("client")).toString()] += partial
                + message.value(QStringLiteral("text")).toString()
                + message.value(QStringLiteral("base64")).toString();
    }
    Messages messages = byClient.values();
    std::sort(messages.begin(), messages.end());
    return messages;
}

QStringList toHost(const Host &host)
{
    return {QStringLiteral("--host"),   testAddress().toString(),   QStringLiteral("--port"),
            QString::number(host.port), QStringLiteral("--output"), QStringLiteral("json")};
}

//! What became of a run of devicesim.
struct Played
{
    int exitCode = -1; // -1: it did not end by itself
    QByteArray output;
    QByteArray errors;
};

Played play(const QStringList &arguments)
{
    QProcess process;
    process.start(QStringLiteral(DEVICESIM_FILE), arguments);
    if (!process.waitForFinished(HangGuardMs) || process.exitStatus() != QProcess::NormalExit)
        return {};
    return {process.exitCode(), process.readAllStandardOutput(), process.readAllStandardError()};
}

} // namespace

// What inputhost --record writes, devicesim --replay plays.
class tst_RecordReplay : public InputHostTest
{
    Q_OBJECT

private Q_SLOTS:
    void thousandConnections();
    void overTls();
    void keepsTimesAndEnds();
    void mutates();
    void refusesWithoutPayload();

private:
    void record(const QStringList &devices, int messages, const QString &file,
                Messages &messagesSeen, const QStringList &more = {});
    void replay(const QStringList &how, int connections, Messages &seen, bool tls = false);

    Played played; // by replay(), last

    QString recordingFile(const char *name) const { return folder.filePath(QLatin1String(name)); }
};

// Records what these devices send; they send so many messages altogether.
void tst_RecordReplay::record(const QStringList &devices, int messages, const QString &file,
                              Messages &messagesSeen, const QStringList &more)
{
    Host host;
    host.start(QStringList{QStringLiteral("--record"), file} + more);
    QCOMPARE(play(toHost(host) + devices).exitCode, 0);
    const QByteArray all = "messages " + QByteArray::number(messages) + ' ';
    QTRY_VERIFY_WITH_TIMEOUT(host.counters().startsWith(all), HangGuardMs);
    QCOMPARE(host.stop(), 0);
    messagesSeen = messagesOf(host);
}

// Plays a recording until the host has seen the ends of so many connections.
void tst_RecordReplay::replay(const QStringList &how, int connections, Messages &seen, bool tls)
{
    const QString again = recordingFile("again");
    QFile::remove(again);
    QStringList options = {QStringLiteral("--record"), again};
    QStringList arguments = how;
    if (tls) {
        const QByteArray ssl = QJsonDocument(serverTls()).toJson(QJsonDocument::Compact);
        options += {QStringLiteral("--set"), QStringLiteral("ssl=") + QString::fromLatin1(ssl)};
        arguments += words("--tls --insecure");
    }
    Host host;
    host.start(options);
    played = play(toHost(host) + arguments);
    QCOMPARE(played.exitCode, 0);
    const auto areOver = [&again, connections] {
        return recordingtest::readFile(again).count(Entry::End) >= connections;
    };
    QTRY_VERIFY_WITH_TIMEOUT(areOver(), HangGuardMs);
    QCOMPARE(host.stop(), 0);
    seen = messagesOf(host);
}

void tst_RecordReplay::thousandConnections()
{
    constexpr int Connections = 1000;
    constexpr int MessagesEach = 5;
    const QString file = recordingFile("thousand");
    Messages recorded;
    record(words("--connections 1000 --parallel 200 --messages 5 --size 300 --segments random "
                 "--seed 3"),
           Connections * MessagesEach, file, recorded);
    QCOMPARE(recorded.size(), Connections);
    const recordingtest::Contents contents = recordingtest::readFile(file);
    QCOMPARE(contents.state, recording::RecordingReader::State::CleanEnd);
    QCOMPARE(contents.count(Entry::Begin), Connections);
    QCOMPARE(contents.count(Entry::End), Connections);

    Messages replayed;
    replay({QStringLiteral("--replay"), file, QStringLiteral("--speed"), QStringLiteral("max")},
           Connections, replayed);
    QCOMPARE(replayed.size(), recorded.size());
    QVERIFY(replayed == recorded);
}

void tst_RecordReplay::overTls()
{
    constexpr int Connections = 10;
    const QString file = recordingFile("few");
    Messages recorded;
    record(words("--connections 10 --messages 20"), Connections * 20, file, recorded);
    Messages replayed;
    replay({QStringLiteral("--replay"), file, QStringLiteral("--speed"), QStringLiteral("100")},
           Connections, replayed, true);
    QCOMPARE(replayed.size(), Connections);
    QVERIFY(replayed == recorded);
}

// One device is reset in the middle of a message; another one ends later, and properly.
void tst_RecordReplay::keepsTimesAndEnds()
{
    constexpr qint64 SecondUs = 1'000'000;
    const QString file = recordingFile("ends");
    QFile made(file);
    QVERIFY(made.open(QIODevice::WriteOnly));
    Entry session;
    session.timeUs = 1'700'000'000 * SecondUs;
    Entry later = recordingtest::bytes(1, 2, "half");
    later.elapsedUs = 2 * SecondUs;
    Entry last = recordingtest::end(2, 2, "idle");
    last.elapsedUs = 3 * SecondUs;
    made.write(recordingtest::fileOf({session, recordingtest::begin(1),
                                      recordingtest::bytes(1, 0, "a\n"), recordingtest::begin(2),
                                      recordingtest::bytes(2, 0, "b\n"), later,
                                      recordingtest::end(1, 6, "reset"), last}));
    made.close();

    Messages replayed;
    replay({QStringLiteral("--replay"), file, QStringLiteral("--speed"), QStringLiteral("20")}, 2,
           replayed);
    QCOMPARE(replayed,
             (Messages{words("a") + QStringList(QStringLiteral("partial half")), words("b")}));
    const recordingtest::Contents again = recordingtest::readFile(recordingFile("again"));
    QByteArrayList reasons;
    for (const Entry &entry : again.entries) {
        if (entry.type == Entry::End)
            reasons += entry.reason;
    }
    QCOMPARE(reasons, (QByteArrayList{"reset", "peer"}));
    // 5 s and 8 s, played 20 times as fast. Timers may be early by a twentieth.
    const QJsonArray connections = QJsonDocument::fromJson(played.output)
                                           .object()
                                           .value(QStringLiteral("connections"))
                                           .toArray();
    QList<int> lastedMs;
    for (const auto connection : connections)
        lastedMs += connection[QStringLiteral("endMs")].toInt()
                - connection[QStringLiteral("openMs")].toInt();
    QCOMPARE(lastedMs.size(), 2);
    QVERIFY(lastedMs.first() >= 250 * 19 / 20 && lastedMs.last() >= 400 * 19 / 20);
}

void tst_RecordReplay::mutates()
{
    const QString file = recordingFile("mutated");
    QFile made(file);
    QVERIFY(made.open(QIODevice::WriteOnly));
    QList<Entry> entries = {Entry(), recordingtest::begin(1)};
    QStringList lines;
    for (quint64 number = 0; number < 100; ++number) {
        const QByteArray line = "line " + QByteArray::number(100 + number) + '\n';
        entries += recordingtest::bytes(1, number * 9, line);
        lines += QString::fromLatin1(line).trimmed();
    }
    made.write(recordingtest::fileOf(entries));
    made.close();
    const Messages recorded = {lines};
    const auto mutated = [&](const char *seed, Messages &seen) {
        replay({QStringLiteral("--replay"), file, QStringLiteral("--speed"), QStringLiteral("max"),
                QStringLiteral("--mutate"), QLatin1String(seed)},
               1, seen);
    };
    Messages first;
    mutated("1", first);
    Messages second;
    mutated("1", second);
    Messages other;
    mutated("2", other);
    QVERIFY(first == second);
    QVERIFY(first != recorded);
    QVERIFY(first != other);
}

void tst_RecordReplay::refusesWithoutPayload()
{
    const QString file = recordingFile("lengths");
    Messages recorded;
    record(words("--messages 3"), 3, file, recorded, words("--record-no-payload"));
    QCOMPARE(recorded.size(), 1); // the host prints as ever
    const Played refused = play({QStringLiteral("--replay"), file});
    QCOMPARE(refused.exitCode, 2);
    QVERIFY2(refused.errors.contains("cannot play " + file.toLocal8Bit()
                                     + ": it was recorded without payload"),
             refused.errors.constData());
}

QTEST_GUILESS_MAIN(tst_RecordReplay)
#include "tst_recordreplay.moc"
