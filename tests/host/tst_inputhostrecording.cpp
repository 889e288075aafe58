// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "host/exitcodes.h"
#include "recording/compression.h"
#include "tests/host/inputhosttest.h"
#include "tests/recording/recordingtest.h"

#include <QtTest/QtTest>

#include <csignal>

#include <fcntl.h>
#include <sys/stat.h>

using namespace host;
using namespace inputhosttest;
using recording::Entry;
using recordingtest::Contents;
using State = recording::RecordingReader::State;

// inputhost --record: what is in the file, and that the host does not depend on it.
class tst_InputHostRecording : public InputHostTest
{
    Q_OBJECT

private Q_SLOTS:
    void init();
    void recordsConnections_data();
    void recordsConnections();
    void goesOnAfterKill_data() { recordsConnections_data(); }
    void goesOnAfterKill();
    void beginsNextFile();
    void neverWaitsForTheFile_data();
    void neverWaitsForTheFile();
    void refusesConfiguration_data();
    void refusesConfiguration();
    void refusesReload();
    void refusesFile();
    void writesNothingUnlessAsked();

private:
    QStringList record(const char *more = "") const
    {
        return QStringList{QStringLiteral("--record"), file} + words(more);
    }

    QString file;
};

void tst_InputHostRecording::init()
{
    file = folder.filePath(QString::fromLatin1(QTest::currentTestFunction())
                           + QString::fromLatin1(QTest::currentDataTag()));
}

void tst_InputHostRecording::recordsConnections_data()
{
    QTest::addColumn<bool>("compressed");
    QTest::newRow("plain") << false;
    if (recording::canCompress())
        QTest::newRow("compressed") << true;
}

void tst_InputHostRecording::recordsConnections()
{
    QFETCH(const bool, compressed);
    Host host;
    host.start(record(compressed ? "--record-compress" : ""));
    Device first(host);
    first.send("one\ntwo\n");
    QTRY_COMPARE_WITH_TIMEOUT(host.lines().size(), 2, HangGuardMs);
    Device second(host);
    second.send("half");
    second.close();
    first.send("three\n");
    QTRY_COMPARE_WITH_TIMEOUT(host.lines().size(), 4, HangGuardMs);
    QCOMPARE(host.stop(), int(ExitOk));

    const Contents contents = recordingtest::readFile(file);
    QCOMPARE(contents.state, State::CleanEnd);
    QCOMPARE(contents.entries.size(), 1 + 2 + 3 + 2);
    const Entry begin = contents.entries.at(1);
    QCOMPARE(begin.type, Entry::Begin);
    QCOMPARE(begin.endpoints.peer, first.socket.localAddress().toString().toLatin1());
    QCOMPARE(begin.endpoints.peerPort, first.socket.localPort());
    QCOMPARE(begin.endpoints.local, testAddress().toString().toLatin1());
    QCOMPARE(begin.endpoints.localPort, host.port);
    QCOMPARE(contents.bytesOf(begin.connection), QByteArray("one\ntwo\nthree\n"));
    QByteArrayList reasons;
    for (const Entry &entry : contents.entries) {
        if (entry.type == Entry::End)
            reasons += entry.reason;
    }
    QCOMPARE(reasons, (QByteArrayList{"peer", "stop"}));
    const qint64 nowUs = QDateTime::currentMSecsSinceEpoch() * 1000;
    QVERIFY(qAbs(contents.entries.last().timeUs - nowUs) < qint64(HangGuardMs) * 1000);
}

// A host that was killed under load leaves a file that can be read, and that the next one
// continues.
void tst_InputHostRecording::goesOnAfterKill()
{
    QFETCH(const bool, compressed);
    const char *more = compressed ? "--record-compress --output count" : "--output count";
    quint64 before = 0;
    {
        Host host;
        host.start(record(more));
        Device device(host);
        QByteArray lines;
        for (int number = 0; number < 20000; ++number)
            lines += QByteArray::number(number).rightJustified(7, '0') + '\n';
        device.send(lines);
        QTRY_VERIFY_WITH_TIMEOUT(QFileInfo(file).size() > 16, HangGuardMs);
        device.send(lines); // and while it is written, the end
        QCOMPARE(host.stop(SIGKILL), -1);

        const Contents contents = recordingtest::readFile(file);
        QVERIFY(contents.state == State::CleanEnd || contents.state == State::TornEnd);
        const QByteArray recorded = contents.bytesOf(contents.entries.at(1).connection);
        QVERIFY(!recorded.isEmpty());
        QVERIFY((lines + lines).startsWith(recorded));
        before = static_cast<quint64>(contents.entries.size());
    }
    Host host;
    host.start(record(more));
    Device(host).send("next\n");
    QTRY_VERIFY_WITH_TIMEOUT(host.counters().startsWith("messages 1 "), HangGuardMs);
    QCOMPARE(host.stop(), int(ExitOk));
    const Contents contents = recordingtest::readFile(file);
    QCOMPARE(contents.state, State::CleanEnd);
    QCOMPARE(contents.count(Entry::Session), 2);
    const auto session = contents.entries.at(static_cast<qsizetype>(before));
    QVERIFY(session.type == Entry::Session && !session.continues);
    QCOMPARE(contents.entries.at(static_cast<qsizetype>(before) + 2).bytes, QByteArray("next\n"));
}

void tst_InputHostRecording::beginsNextFile()
{
    Host host;
    host.start(record("--record-size 100 --record-keep 1"));
    Device device(host);
    const auto finished = [this](int number) { return file + QStringLiteral(".%1").arg(number); };
    const auto isFull = [this] { return QFileInfo(file).size() > 100; };
    const QByteArray line = QByteArray(100, 'x') + '\n';
    device.send(line);
    QTRY_VERIFY_WITH_TIMEOUT(isFull(), HangGuardMs);
    device.send(line);
    QTRY_VERIFY_WITH_TIMEOUT(QFile::exists(finished(1)) && isFull(), HangGuardMs);
    device.send(line);
    QTRY_VERIFY_WITH_TIMEOUT(QFile::exists(finished(2)) && isFull(), HangGuardMs);
    QTRY_VERIFY_WITH_TIMEOUT(!QFile::exists(finished(1)), HangGuardMs);
    QCOMPARE(host.stop(), int(ExitOk));
    QVERIFY(!QFile::exists(finished(2)));
    const Contents third = recordingtest::readFile(finished(3));
    QCOMPARE(third.state, State::CleanEnd);
    QCOMPARE(third.entries.size(), 3);
    QVERIFY(third.entries.at(1).wasOpen);
    QCOMPARE(third.entries.at(1).position, quint64(2 * line.size()));
    QCOMPARE(third.entries.at(2).bytes, line);
    const Contents last = recordingtest::readFile(file);
    QCOMPARE(last.entries.size(), 3);
    QCOMPARE(last.entries.last().type, Entry::End);
}

void tst_InputHostRecording::neverWaitsForTheFile_data()
{
    QTest::addColumn<bool>("isPipe");
    QTest::newRow("pipe that nobody reads") << true;
    QTest::newRow("full") << false;
}

void tst_InputHostRecording::neverWaitsForTheFile()
{
    QFETCH(const bool, isPipe);
    if (isPipe)
        QCOMPARE(::mkfifo(QFile::encodeName(file).constData(), 0600), 0);
    else
        file = QStringLiteral("/dev/full");
    Host host;
    host.start(record("--output count"));
    Device device(host);
    const QByteArray line(999, 'x');
    for (int number = 0; number < 300; ++number) // more than a pipe takes
        device.send(line + '\n');
    QTRY_VERIFY_WITH_TIMEOUT(host.counters().startsWith("messages 300 "), HangGuardMs);
    QCOMPARE(host.stop(), int(ExitOk));
    QVERIFY(host.output().startsWith("messages 300 "));
    const QByteArray text = "Bytes are missing in the recording " + file.toLatin1() + ": ";
    QVERIFY2(host.log().count(text) == 1, host.log().constData());
}

void tst_InputHostRecording::refusesConfiguration_data()
{
    QTest::addColumn<QString>("setting");
    QTest::newRow("offsets") << "offsets=false";
    QTest::newRow("ends") << "ends=false";
}

void tst_InputHostRecording::refusesConfiguration()
{
    QFETCH(const QString, setting);
    Host host;
    host.run(host.listenArguments() + record() + QStringList{QStringLiteral("--set"), setting});
    QCOMPARE(host.finish(), int(ExitBadConfiguration));
    QVERIFY(host.log().contains("--record needs \"offsets\" and \"ends\": "));
    QVERIFY(!QFile::exists(file));
}

void tst_InputHostRecording::refusesReload()
{
    Host host;
    const QString config = writeConfig(listenConfig(host.port));
    host.run(record() + QStringList{QStringLiteral("--config"), config});
    QTRY_VERIFY_WITH_TIMEOUT(host.log().contains("Listening on "), HangGuardMs);
    writeConfig(listenConfig(host.port, R"(, "offsets": false)"));
    host.signal(SIGHUP);
    QTRY_VERIFY_WITH_TIMEOUT(host.log().contains("Configuration not changed"), HangGuardMs);
    Device(host).send("still\n");
    QTRY_COMPARE_WITH_TIMEOUT(host.texts(), QStringList(QStringLiteral("still")), HangGuardMs);
    QCOMPARE(host.stop(), int(ExitOk));
    QCOMPARE(recordingtest::readFile(file).count(Entry::Bytes), 1);
}

void tst_InputHostRecording::refusesFile()
{
    QFile other(file);
    QVERIFY(other.open(QIODevice::WriteOnly));
    other.write("A text, and no recording.\n");
    other.close();
    Host host;
    host.run(host.listenArguments() + record());
    QCOMPARE(host.finish(), int(ExitRecordingFailed));
    QVERIFY2(host.log().contains("Cannot record to " + file.toLatin1() + ": it is no recording"),
             host.log().constData());
    QCOMPARE(recordingtest::contentOf(file), QByteArray("A text, and no recording.\n"));
}

void tst_InputHostRecording::writesNothingUnlessAsked()
{
    const QTemporaryDir empty;
    Host host;
    host.process.setWorkingDirectory(empty.path());
    host.start();
    Device(host).send("a\n");
    QTRY_COMPARE_WITH_TIMEOUT(host.lines().size(), 1, HangGuardMs);
    QDir threads(QStringLiteral("/proc/%1/task").arg(host.process.processId()));
    const qsizetype without = threads.entryList(QDir::Dirs | QDir::NoDotAndDotDot).size();
    QCOMPARE(host.stop(), int(ExitOk));
    QVERIFY(QDir(empty.path()).isEmpty());

    Host recordingHost;
    recordingHost.start(record());
    Device(recordingHost).send("a\n");
    QTRY_COMPARE_WITH_TIMEOUT(recordingHost.lines().size(), 1, HangGuardMs);
    threads.setPath(QStringLiteral("/proc/%1/task").arg(recordingHost.process.processId()));
    QCOMPARE(threads.entryList(QDir::Dirs | QDir::NoDotAndDotDot).size(), without + 1);
}

QTEST_GUILESS_MAIN(tst_InputHostRecording)
#include "tst_inputhostrecording.moc"
