// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "host/sinks/countingsink.h"
#include "host/sinks/streamsink.h"
#include "tests/kit/hangguard.h"

#include <QtCore/QJsonDocument>
#include <QtCore/QJsonObject>
#include <QtTest/QtTest>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <thread>

#include <fcntl.h>
#include <sys/mount.h>
#include <unistd.h>

using namespace host;
using namespace std::chrono_literals;

namespace {

const Origin origin = {7,
                       QDateTime::fromString(QStringLiteral("2026-01-02T03:04:05Z"), Qt::ISODate),
                       QStringLiteral("tcp"),
                       QStringLiteral("TCP:tcp2:127.0.0.1:7446-127.0.0.2:40001"),
                       QStringLiteral("127.0.0.2"),
                       40001,
                       QStringLiteral("tcp2:127.0.0.1:7446-127.0.0.2:40001"),
                       QStringLiteral("3")};

//! A pipe in place of standard sink. Neither end blocks.
class Pipe
{
public:
    Pipe()
    {
        if (::pipe2(ends, O_NONBLOCK | O_CLOEXEC) != 0)
            qFatal("pipe2 failed");
    }
    ~Pipe()
    {
        closeReader();
        ::close(ends[1]);
    }
    Q_DISABLE_COPY_MOVE(Pipe)

    int writer() const { return ends[1]; }
    void closeReader()
    {
        if (ends[0] >= 0)
            ::close(std::exchange(ends[0], -1));
    }

    // The bytes that are there now.
    QByteArray read() const
    {
        QByteArray result;
        char buffer[4096];
        for (ssize_t size = 0; (size = ::read(ends[0], buffer, sizeof buffer)) > 0;)
            result.append(buffer, size);
        return result;
    }

private:
    int ends[2] = {-1, -1};
};

QByteArray contentOf(const QString &name)
{
    QFile file(name);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray("no file");
}

} // namespace

class tst_StreamSink : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase() { std::signal(SIGPIPE, SIG_IGN); }
    void jsonLine();
    void jsonContent_data();
    void jsonContent();
    void jsonKeepsByteOrderMark();
    void jsonNamesNeedEscapes();
    void partial();
    void raw_data();
    void raw();
    void countOnlyWhereAsked();
    void batch();
    void largeBatch();
    void slowReader();
    void safeByConnection();
    void fullAndNotFull();
    void fullOfShortMessages();
    void terminalThatIsNotRead();
    void finishingWaits();
    void finishingGivesUp();
    void closedPipe();
    void fullDisk();
    void diskWithRoomAgain();
    void endsHalfLine_data();
    void endsHalfLine();
    void reopened();
    void reopenedWithHalfAMessage();
    void cannotOpen();
    void cannotReopen();
};

void tst_StreamSink::jsonLine()
{
    Pipe pipe;
    StreamSink sink(StreamFormat(StreamFormat::Json, Framing::Lines), pipe.writer());
    sink.write({origin, sink.headOf(origin), "hello"});
    sink.flush();
    QCOMPARE(pipe.read(),
             QByteArray(R"({"time":"2026-01-02T03:04:05Z","plugin":"tcp",)"
                        R"("source":"TCP:tcp2:127.0.0.1:7446-127.0.0.2:40001",)"
                        R"("peer":"127.0.0.2","port":40001,)"
                        R"("client":"tcp2:127.0.0.1:7446-127.0.0.2:40001","task":3,)"
                        R"("bytes":5,"text":"hello"})"
                        "\n"));
}

void tst_StreamSink::jsonContent_data()
{
    QTest::addColumn<QByteArray>("bytes");
    QTest::addColumn<bool>("isText");

    QTest::newRow("empty") << QByteArray() << true;
    QTest::newRow("quotes") << QByteArray("\"a\" \\ /") << true;
    QByteArray controls;
    for (char c = 0; c < 0x20; ++c)
        controls += c;
    QTest::newRow("control characters") << controls + '\x7f' << true;
    QTest::newRow("UTF-8") << QByteArray("\xc3\xa4 \xe2\x82\xac \xf0\x9f\x98\x80 \xe2\x80\xa8")
                           << true;
    QTest::newRow("Latin-1") << QByteArray("\xe4") << false;
    QTest::newRow("cut UTF-8") << QByteArray("a\xe2\x82") << false;
    QTest::newRow("surrogate") << QByteArray("\xed\xa0\x80") << false;
    QTest::newRow("overlong") << QByteArray("\xc0\x80") << false;
    QTest::newRow("any bytes") << QByteArray("\0\xff\xfe\x01", 4) << false;
}

void tst_StreamSink::jsonContent()
{
    QFETCH(QByteArray, bytes);
    QFETCH(bool, isText);

    Pipe pipe;
    StreamSink sink(StreamFormat(StreamFormat::Json, Framing::Lines), pipe.writer());
    sink.write({origin, sink.headOf(origin), bytes});
    sink.flush();

    const QByteArray line = pipe.read();
    QCOMPARE(line.count('\n'), 1);
    const QJsonObject object = QJsonDocument::fromJson(line).object();
    QCOMPARE(object.value(QStringLiteral("bytes")), QJsonValue(bytes.size()));
    const QByteArray text = object.value(QStringLiteral("text")).toString().toUtf8();
    const QByteArray base64 = object.value(QStringLiteral("base64")).toString().toLatin1();
    QCOMPARE(object.contains(QStringLiteral("text")), isText);
    QCOMPARE(object.contains(QStringLiteral("base64")), !isText);
    QCOMPARE(isText ? text : QByteArray::fromBase64(base64), bytes);
    QVERIFY(!object.contains(QStringLiteral("partial")));
}

// Qt's JSON reader drops a byte order mark, so compare the bytes.
void tst_StreamSink::jsonKeepsByteOrderMark()
{
    Pipe pipe;
    StreamSink sink(StreamFormat(StreamFormat::Json, Framing::Lines), pipe.writer());
    sink.write({origin, sink.headOf(origin), "\xef\xbb\xbf!"});
    sink.flush();
    QVERIFY(pipe.read().endsWith("\"bytes\":4,\"text\":\"\\ufeff!\"}\n"));
}

void tst_StreamSink::jsonNamesNeedEscapes()
{
    Pipe pipe;
    StreamSink sink(StreamFormat(StreamFormat::Json, Framing::Lines), pipe.writer());
    Origin odd = origin;
    odd.plugin = QStringLiteral("\"\\\n\u00e4");
    sink.write({odd, sink.headOf(odd), "a"});
    sink.flush();
    const QJsonObject object = QJsonDocument::fromJson(pipe.read()).object();
    QCOMPARE(object.value(QStringLiteral("plugin")).toString(), odd.plugin);
}

void tst_StreamSink::partial()
{
    Pipe pipe;
    StreamSink sink(StreamFormat(StreamFormat::Json, Framing::Lines), pipe.writer());
    sink.write({origin, sink.headOf(origin), "hel", 0, 0, true});
    sink.flush();
    const QByteArray line = pipe.read();
    QVERIFY2(line.endsWith(R"("bytes":3,"text":"hel","partial":true})"
                           "\n"),
             line.constData());
}

void tst_StreamSink::raw_data()
{
    QTest::addColumn<Framing>("framing");
    QTest::addColumn<QByteArray>("expected");

    QTest::newRow("lines") << Framing::Lines << QByteArray("ab\n\nc\n");
    QTest::newRow("length") << Framing::Length << QByteArray("\0\0\0\2ab\0\0\0\0\0\0\0\1c", 15);
    QTest::newRow("none") << Framing::None << QByteArray("abc");
}

void tst_StreamSink::raw()
{
    QFETCH(Framing, framing);
    Pipe pipe;
    StreamSink sink(StreamFormat(StreamFormat::Raw, framing), pipe.writer());
    sink.write({origin, sink.headOf(origin), "ab"});
    sink.write({origin, sink.headOf(origin), ""});
    sink.write({origin, sink.headOf(origin), "partial", 0, 0, true});
    sink.write({origin, sink.headOf(origin), "c"});
    sink.flush();
    QTEST(pipe.read(), "expected");
}

void tst_StreamSink::countOnlyWhereAsked()
{
    for (const bool isAsked : {true, false}) {
        Pipe pipe;
        CountingSink sink(isAsked ? pipe.writer() : -1);
        sink.write({origin, {}, "ab"});
        sink.write({origin, {}, "ab", 0, 0, true});
        QCOMPARE(sink.finish(0ms), 0);
        QCOMPARE(pipe.read(), QByteArray());
        sink.summarize(QStringLiteral("messages 1"));
        QCOMPARE(pipe.read(), isAsked ? QByteArray("messages 1\n") : QByteArray());
    }
}

// The messages of one turn of the event loop are written with one system call, without delay.
void tst_StreamSink::batch()
{
    Pipe pipe;
    StreamSink sink(StreamFormat(StreamFormat::Raw, Framing::Lines), pipe.writer());
    sink.write({origin, sink.headOf(origin), "a"});
    sink.write({origin, sink.headOf(origin), "b"});
    QCOMPARE(pipe.read(), QByteArray());
    QCoreApplication::sendPostedEvents();
    QCOMPARE(pipe.read(), QByteArray("a\nb\n"));
    sink.write({origin, sink.headOf(origin), "c"});
    QCoreApplication::sendPostedEvents();
    QCOMPARE(pipe.read(), QByteArray("c\n"));
}

void tst_StreamSink::largeBatch()
{
    Pipe pipe;
    ::fcntl(pipe.writer(), F_SETPIPE_SZ, 1 << 20);
    StreamSink sink(StreamFormat(StreamFormat::Raw, Framing::None), pipe.writer());
    const QByteArray message(1000, 'x');
    for (int n = 0; n < 100; ++n)
        sink.write({origin, sink.headOf(origin), message});
    const QByteArray early = pipe.read();
    QVERIFY(early.size() > 64 * 1024);
    sink.flush();
    QCOMPARE(early.size() + pipe.read().size(), 100000);
}

// Nobody waits for the reader. A message is safe when the pipe has taken all of it.
void tst_StreamSink::slowReader()
{
    Pipe pipe;
    ::fcntl(pipe.writer(), F_SETPIPE_SZ, 4096);
    StreamSink sink(StreamFormat(StreamFormat::Raw, Framing::None), pipe.writer());
    QSignalSpy safe(&sink, &Sink::safe);
    QSignalSpy failed(&sink, &Sink::failed);
    sink.write({origin, {}, QByteArray(3000, 'a'), 0, 3000});
    sink.write({origin, {}, QByteArray(3000, 'b'), 3000, 6000});
    sink.flush();
    QCOMPARE(safe.count(), 1);
    QCOMPARE(safe.takeFirst(), QVariantList({quint64(7), quint64(3000)}));

    QByteArray received = pipe.read();
    QTRY_VERIFY_WITH_TIMEOUT((received += pipe.read()).size() == 6000, HangGuardMs);
    QCOMPARE(received, QByteArray(3000, 'a') + QByteArray(3000, 'b'));
    QCOMPARE(safe.count(), 1);
    QCOMPARE(safe.takeFirst(), QVariantList({quint64(7), quint64(6000)}));
    QCOMPARE(failed.count(), 0);
}

// What is safe is said once for all neighbouring messages of a connection, and in order.
void tst_StreamSink::safeByConnection()
{
    Pipe pipe;
    StreamSink sink(StreamFormat(StreamFormat::Raw, Framing::Lines), pipe.writer());
    QSignalSpy safe(&sink, &Sink::safe);
    Origin other = origin;
    other.connection = 8;
    Origin unnumbered = origin;
    unnumbered.connection = 0;
    sink.write({origin, {}, "a", 0, 2});
    sink.write({origin, {}, "b", 2, 4});
    sink.write({unnumbered, {}, "x"});
    sink.write({other, {}, "c", 0, 2});
    sink.write({origin, {}, "d", 4, 6, true}); // not written in raw form, and safe all the same
    sink.flush();
    const QList<QVariantList> expected = {
            {quint64(7), quint64(4)}, {quint64(8), quint64(2)}, {quint64(7), quint64(6)}};
    QCOMPARE(static_cast<const QList<QVariantList> &>(safe), expected);
    QCOMPARE(pipe.read(), QByteArray("a\nb\nx\nc\n"));
}

void tst_StreamSink::fullAndNotFull()
{
    Pipe pipe;
    ::fcntl(pipe.writer(), F_SETPIPE_SZ, 4096);
    StreamSink sink(StreamFormat(StreamFormat::Raw, Framing::None), pipe.writer());
    QSignalSpy full(&sink, &Sink::fullChanged);
    const QByteArray message(1000 * 1000, 'x');
    qsizetype sent = 0;
    for (; !sink.isFull(); sent += message.size())
        sink.write({origin, {}, message});
    QVERIFY2(sent > StreamSink::MostWaiting && sent < StreamSink::MostWaiting + 2 * message.size(),
             QByteArray::number(sent));
    QCOMPARE(full.count(), 1);

    qsizetype received = 0;
    const auto readUntil = [&](const auto &isReached) {
        const QDeadlineTimer guard(HangGuardMs);
        while (!isReached() && !guard.hasExpired()) {
            received += pipe.read().size();
            QCoreApplication::processEvents();
        }
        return isReached();
    };
    QVERIFY(readUntil([&] { return !sink.isFull(); }));
    QVERIFY(sent - received >= StreamSink::MostWaiting / 2 - 4096);
    QVERIFY(readUntil([&] { return received == sent; }));
    QCOMPARE(full.count(), 2);
}

// What is kept beside the bytes counts, too.
void tst_StreamSink::fullOfShortMessages()
{
    Pipe pipe;
    StreamSink sink(StreamFormat(StreamFormat::Raw, Framing::Lines), pipe.writer());
    int messages = 0;
    for (; !sink.isFull(); ++messages)
        sink.write({origin, {}, ""});
    QVERIFY2(messages < StreamSink::MostWaiting / 20, QByteArray::number(messages));
}

// It says that it is writable, and then takes less than is written.
void tst_StreamSink::terminalThatIsNotRead()
{
    const int reader = ::posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
    QVERIFY(reader >= 0 && ::grantpt(reader) == 0 && ::unlockpt(reader) == 0);
    const int terminal = ::open(::ptsname(reader), O_RDWR | O_NOCTTY | O_CLOEXEC);
    QVERIFY(terminal >= 0);
    const auto closing = qScopeGuard([=] {
        ::close(terminal);
        ::close(reader);
    });
    StreamSink sink(StreamFormat(StreamFormat::Raw, Framing::Lines), terminal);
    for (int n = 0; n < 2000; ++n)
        sink.write({origin, {}, QByteArray(60, 'x')});
    QVERIFY(sink.finish(1ms) > 0);
    QCOMPARE(::fcntl(terminal, F_GETFL) & O_NONBLOCK, 0); // others share it
}

void tst_StreamSink::finishingWaits()
{
    Pipe pipe;
    ::fcntl(pipe.writer(), F_SETPIPE_SZ, 4096);
    QByteArray received;
    constexpr int total = 1000000;
    std::thread reader([&pipe, &received] {
        while (received.size() < total) {
            received += pipe.read();
            std::this_thread::yield();
        }
    });
    StreamSink sink(StreamFormat(StreamFormat::Raw, Framing::None), pipe.writer());
    for (int n = 0; n < 10; ++n)
        sink.write({origin, {}, QByteArray(total / 10, static_cast<char>('0' + n))});
    const qint64 unsafe = sink.finish(std::chrono::milliseconds(HangGuardMs));
    reader.join();
    QCOMPARE(unsafe, 0);
    for (int n = 0; n < 10; ++n)
        QCOMPARE(received.count(static_cast<char>('0' + n)), total / 10);
}

void tst_StreamSink::finishingGivesUp()
{
    Pipe pipe;
    ::fcntl(pipe.writer(), F_SETPIPE_SZ, 4096);
    StreamSink sink(StreamFormat(StreamFormat::Raw, Framing::None), pipe.writer());
    for (int n = 0; n < 3; ++n)
        sink.write({origin, {}, QByteArray(3000, 'x')});
    QCOMPARE(sink.finish(10ms), 2);
}

void tst_StreamSink::closedPipe()
{
    Pipe pipe;
    pipe.closeReader();
    StreamSink sink(StreamFormat(StreamFormat::Raw, Framing::Lines), pipe.writer());
    QSignalSpy failed(&sink, &Sink::failed);
    QSignalSpy safe(&sink, &Sink::safe);
    sink.flush();
    QCOMPARE(failed.count(), 0); // there was nothing to write
    for (int n = 0; n < 3; ++n) {
        sink.write({origin, {}, "a"});
        sink.flush();
    }
    QCOMPARE(failed.count(), 1);
    QCOMPARE(failed.first().first().toString(),
             QStringLiteral("Cannot write to standard output: ")
                     + QString::fromLocal8Bit(std::strerror(EPIPE)));
    QCOMPARE(safe.count(), 0);
}

// It is waited for, and nothing of it is safe.
void tst_StreamSink::fullDisk()
{
    const int full = ::open("/dev/full", O_WRONLY | O_CLOEXEC);
    QVERIFY(full >= 0);
    const auto closing = qScopeGuard([full] { ::close(full); });
    StreamSink sink(StreamFormat(StreamFormat::Json, Framing::Lines), full);
    QSignalSpy failed(&sink, &Sink::failed);
    QSignalSpy safe(&sink, &Sink::safe);
    QTest::ignoreMessage(QtWarningMsg,
                         QRegularExpression(QStringLiteral(
                                 "Cannot write to standard output: .*; trying again$")));
    sink.write({origin, sink.headOf(origin), "a", 0, 2});
    QCOMPARE(sink.finish(10ms), 1);
    QCOMPARE(failed.count(), 0);
    QCOMPARE(safe.count(), 0);
}

// The disk is full in the middle of a message.
void tst_StreamSink::diskWithRoomAgain()
{
    const QTemporaryDir directory;
    // A file system of two blocks, which root can make; others cannot try this.
    const QString mount = directory.filePath(QStringLiteral("disk"));
    QVERIFY(QDir().mkdir(mount));
    if (::mount("tmpfs", QFile::encodeName(mount).constData(), "tmpfs", 0, "size=8192") != 0)
        QSKIP("Needs a file system of its own, which only root can make");
    const auto unmounting =
            qScopeGuard([&] { ::umount2(QFile::encodeName(mount).constData(), MNT_DETACH); });
    const QString filler = mount + QStringLiteral("/filler");
    {
        QFile file(filler);
        QVERIFY(file.open(QIODevice::WriteOnly) && file.write(QByteArray(4096, 'f')) == 4096);
    }
    StreamSink sink(StreamFormat(StreamFormat::Raw, Framing::Lines),
                    mount + QStringLiteral("/out"));
    QVERIFY2(sink.open(), qPrintable(sink.errorString()));
    QSignalSpy safe(&sink, &Sink::safe);
    QTest::ignoreMessage(QtWarningMsg,
                         QRegularExpression(QStringLiteral("Cannot write to .*; trying again$")));
    sink.write({origin, {}, QByteArray(3000, 'a'), 0, 3001});
    sink.write({origin, {}, QByteArray(3000, 'b'), 3001, 6002});
    sink.flush();
    QCOMPARE(safe.count(), 1);

    QTest::ignoreMessage(QtWarningMsg,
                         QRegularExpression(QStringLiteral("Writing to .* goes on, after .* ms$")));
    QVERIFY(QFile::remove(filler));
    QTRY_COMPARE_WITH_TIMEOUT(safe.count(), 2, HangGuardMs);
    QCOMPARE(contentOf(mount + QStringLiteral("/out")),
             QByteArray(3000, 'a') + '\n' + QByteArray(3000, 'b') + '\n');
}

void tst_StreamSink::endsHalfLine_data()
{
    QTest::addColumn<QByteArray>("before");
    QTest::addColumn<QByteArray>("after");
    QTest::newRow("no file") << QByteArray() << QByteArray("a\n");
    QTest::newRow("whole line") << QByteArray("x\n") << QByteArray("x\na\n");
    QTest::newRow("half line") << QByteArray("x\nha") << QByteArray("x\nha\na\n");
}

void tst_StreamSink::endsHalfLine()
{
    QFETCH(QByteArray, before);
    const QTemporaryDir directory;
    const QString name = directory.filePath(QStringLiteral("out"));
    if (!before.isEmpty()) {
        QFile file(name);
        QVERIFY(file.open(QIODevice::WriteOnly) && file.write(before) == before.size());
    }
    StreamSink sink(StreamFormat(StreamFormat::Raw, Framing::Lines), name);
    QVERIFY2(sink.open(), qPrintable(sink.errorString()));
    sink.write({origin, {}, "a"});
    QCOMPARE(sink.finish(0ms), 0);
    QTEST(contentOf(name), "after");
}

void tst_StreamSink::reopened()
{
    const QTemporaryDir directory;
    const QString name = directory.filePath(QStringLiteral("out"));
    StreamSink sink(StreamFormat(StreamFormat::Raw, Framing::Lines), name);
    QVERIFY2(sink.open(), qPrintable(sink.errorString()));
    sink.write({origin, {}, "a"});
    QVERIFY(QFile::rename(name, name + u'1'));
    sink.reopen();
    sink.write({origin, {}, "b"});
    QCOMPARE(sink.finish(0ms), 0);
    QCOMPARE(contentOf(name + u'1'), QByteArray("a\n"));
    QCOMPARE(contentOf(name), QByteArray("b\n"));
}

// The disk is full, and half of a message is in the old file: all of it goes to the new one.
void tst_StreamSink::reopenedWithHalfAMessage()
{
    const QTemporaryDir directory;
    const QString mount = directory.filePath(QStringLiteral("disk"));
    QVERIFY(QDir().mkdir(mount));
    if (::mount("tmpfs", QFile::encodeName(mount).constData(), "tmpfs", 0, "size=4096") != 0)
        QSKIP("Needs a file system of its own, which only root can make");
    const auto unmounting =
            qScopeGuard([&] { ::umount2(QFile::encodeName(mount).constData(), MNT_DETACH); });
    // The name leads to the small disk first, and then elsewhere.
    const QString name = directory.filePath(QStringLiteral("out"));
    QVERIFY(QFile::link(mount + QStringLiteral("/out"), name));
    StreamSink sink(StreamFormat(StreamFormat::Raw, Framing::Lines), name);
    QVERIFY2(sink.open(), qPrintable(sink.errorString()));
    QTest::ignoreMessage(QtWarningMsg,
                         QRegularExpression(QStringLiteral("Cannot write to .*; trying again$")));
    sink.write({origin, {}, QByteArray(3000, 'a')});
    sink.write({origin, {}, QByteArray(3000, 'b')});
    sink.flush();
    QVERIFY(QFile::remove(name));
    QTest::ignoreMessage(QtWarningMsg,
                         QRegularExpression(QStringLiteral("Writing to .* goes on, after .* ms$")));
    sink.reopen();
    QCOMPARE(sink.finish(0ms), 0);
    QCOMPARE(contentOf(mount + QStringLiteral("/out")), QByteArray(3000, 'a') + '\n');
    QCOMPARE(contentOf(name), QByteArray(3000, 'b') + '\n');
}

void tst_StreamSink::cannotOpen()
{
    const QTemporaryDir directory;
    const QString name = directory.filePath(QStringLiteral("missing/out"));
    StreamSink sink(StreamFormat(StreamFormat::Raw, Framing::Lines), name);
    QVERIFY(!sink.open());
    QCOMPARE(sink.errorString(),
             QStringLiteral("Cannot open %1: %2")
                     .arg(name, QString::fromLocal8Bit(std::strerror(ENOENT))));
}

// Later, the old file is better than none.
void tst_StreamSink::cannotReopen()
{
    const QTemporaryDir directory;
    QVERIFY(QDir(directory.path()).mkdir(QStringLiteral("folder")));
    const QString name = directory.filePath(QStringLiteral("folder/out"));
    StreamSink sink(StreamFormat(StreamFormat::Raw, Framing::Lines), name);
    QVERIFY2(sink.open(), qPrintable(sink.errorString()));
    const QString moved = directory.filePath(QStringLiteral("moved"));
    QVERIFY(QFile::rename(directory.filePath(QStringLiteral("folder")), moved));
    QTest::ignoreMessage(
            QtWarningMsg,
            QRegularExpression(QStringLiteral("Cannot open .*; the old file is written on$")));
    sink.reopen();
    sink.write({origin, {}, "a"});
    QCOMPARE(sink.finish(0ms), 0);
    QCOMPARE(contentOf(moved + QStringLiteral("/out")), QByteArray("a\n"));
}

QTEST_GUILESS_MAIN(tst_StreamSink)
#include "tst_streamsink.moc"
