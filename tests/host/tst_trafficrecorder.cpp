// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "plugin/recording/trafficrecorder.h"

#include "plugin/recording/recordedendpoints.h"
#include "tests/host/messagereadertest.h"
#include "tests/kit/hangguard.h"
#include "tests/recording/recordingtest.h"

#include <QtCore/QTemporaryDir>
#include <QtTest/QtTest>

using namespace host;
using namespace messagereadertest;

namespace {

//! Writes down what is read of connection 1.
class Witness : public inputkit::TrafficObserver
{
public:
    void read(const Origin &origin, quint64 position, QByteArrayView bytes) override
    {
        isExact = isExact && origin.connection == 1 && position == static_cast<quint64>(seen.size())
                && !bytes.isEmpty() && !isOver;
        seen += bytes;
    }
    void ended(const Origin &origin, const QString &, quint64 position) override
    {
        isExact = isExact && origin.connection == 1 && position == static_cast<quint64>(seen.size())
                && !isOver;
        isOver = true;
    }

    QByteArray seen;
    bool isOver = false;
    bool isExact = true; // every byte once, in order, and one end
};

} // namespace

class tst_TrafficRecorder : public MessageReaderTest
{
    Q_OBJECT

private Q_SLOTS:
    void init() { begin(); }
    void cleanup() { end(); }

    void everyByteIsSeenOnce();
    void recordsBeginningsAndEnds();
    void tellsOfADamagedRecording();
    void endpoints_data();
    void endpoints();
};

// Offers that repeat bytes, are read in several goes, and replace each other.
void tst_TrafficRecorder::everyByteIsSeenOnce()
{
    inputkit::Pace pace;
    pace.ofOffer.messages = 2;
    pace.ofTurn = std::chrono::hours(1);
    make({}, OutputOptions::Raw, pace);
    reader->setEndsTold(true);
    Witness witness;
    reader->addObserver(&witness);
    const QByteArray stream = "a\nb\nc\nd\ne\nf\ng\nhalf";
    reader->receive(stamped(1, 0, stream.first(10)));
    QCOMPARE(witness.seen, QByteArray("a\nb\n"));
    reader->receive(stamped(1, 2, stream.sliced(2, 12))); // replaces the rest of the one before
    QCoreApplication::processEvents();
    reader->receive(stamped(1, 0, stream));
    reader->receive(endOf(1, static_cast<quint64>(stream.size())));
    QTRY_VERIFY_WITH_TIMEOUT(witness.isOver, HangGuardMs);
    QVERIFY(witness.isExact);
    QCOMPARE(witness.seen, stream);
}

void tst_TrafficRecorder::recordsBeginningsAndEnds()
{
    const QTemporaryDir folder;
    inputkit::RecordingOptions options;
    options.file = folder.filePath(QStringLiteral("traffic"));
    inputkit::TrafficRecorder recorder(options);
    QVERIFY2(recorder.start(), qPrintable(recorder.errorString()));
    reader->setEndsTold(true);
    reader->addObserver(&recorder);
    reader->receive(stamped(1, 0, "a\n"));
    reader->receive(stamped(1, 2, "b\n"));
    reader->receive(endOf(2, 0)); // a connection that has brought nothing
    reader->receive(endOf(1, 4));
    recorder.finish();

    const recordingtest::Contents contents = recordingtest::readFile(options.file);
    QByteArray course;
    for (const recording::Entry &entry : contents.entries)
        course += QByteArray::number(entry.type) + '/' + QByteArray::number(entry.connection) + ' ';
    QCOMPARE(course, QByteArray("1/0 2/1 3/1 3/1 2/2 5/2 5/1 "));
    QCOMPARE(contents.entries.last().reason, QByteArray("peer"));
    QCOMPARE(contents.entries.last().position, quint64(4));
    QCOMPARE(contents.entries.at(1).endpoints.peer, QByteArray("127.0.0.2"));
}

void tst_TrafficRecorder::tellsOfADamagedRecording()
{
    const QTemporaryDir folder;
    inputkit::RecordingOptions options;
    options.file = folder.filePath(QStringLiteral("traffic"));
    QFile damaged(options.file);
    QVERIFY(damaged.open(QIODevice::WriteOnly));
    damaged.write(recordingtest::fileOf({recording::Entry()}) + QByteArray(100, '\0'));
    damaged.close();
    inputkit::TrafficRecorder recorder(options);
    const QString line =
            QStringLiteral("Recording %1 is not continued, it is now %1.1: it is damaged");
    const QString pattern = QRegularExpression::escape(line.arg(options.file));
    QTest::ignoreMessage(QtWarningMsg, QRegularExpression(pattern));
    QVERIFY2(recorder.start(), qPrintable(recorder.errorString()));
}

void tst_TrafficRecorder::endpoints_data()
{
    QTest::addColumn<QString>("peer");
    QTest::addColumn<QByteArray>("local");
    QTest::addColumn<int>("localPort");

    QTest::newRow("TCP:tcp2:192.0.2.1:7446-127.0.0.1:50123")
            << "127.0.0.1" << QByteArray("192.0.2.1") << 7446;
    QTest::newRow("TCP:tcp2:2001:db8::1:7446-::1:50123")
            << "::1" << QByteArray("2001:db8::1") << 7446;
    QTest::newRow("TCP:tcp2:fe80::1%eth-0:1-fe80::2%eth-0:50123#17")
            << "fe80::2%eth-0" << QByteArray("fe80::1%eth-0") << 1;
    QTest::newRow("another form") << "127.0.0.1" << QByteArray() << 0;
    QTest::newRow("TCP:tcp2:") << "127.0.0.1" << QByteArray() << 0;
}

void tst_TrafficRecorder::endpoints()
{
    QFETCH(QString, peer);
    Origin origin;
    origin.peer = peer;
    origin.port = 50123;
    origin.source = QString::fromLatin1(QTest::currentDataTag());
    const recording::Endpoints found = inputkit::endpointsOf(origin);
    QCOMPARE(found.peer, peer.toUtf8());
    QCOMPARE(found.peerPort, quint16(50123));
    QTEST(found.local, "local");
    QTEST(int(found.localPort), "localPort");
}

QTEST_GUILESS_MAIN(tst_TrafficRecorder)
#include "tst_trafficrecorder.moc"
