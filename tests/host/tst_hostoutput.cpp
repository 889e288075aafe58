// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "host/output.h"

#include <QtCore/QJsonDocument>
#include <QtCore/QJsonObject>
#include <QtTest/QtTest>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <thread>

#include <fcntl.h>
#include <unistd.h>

using namespace host;

namespace {

const Origin origin = {7,
                       QDateTime::fromString(QStringLiteral("2026-01-02T03:04:05Z"), Qt::ISODate),
                       QStringLiteral("tcp"),
                       QStringLiteral("TCP:tcp2:127.0.0.1:7446-127.0.0.2:40001"),
                       QStringLiteral("127.0.0.2"),
                       40001,
                       QStringLiteral("tcp2:127.0.0.1:7446-127.0.0.2:40001"),
                       QStringLiteral("3")};

//! A pipe in place of standard output. Neither end blocks.
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

} // namespace

class tst_HostOutput : public QObject
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
    void quietFormats();
    void count();
    void countOnlyWhereAsked();
    void batch();
    void largeBatch();
    void slowReader();
    void closedPipe();
    void fullDevice();
};

void tst_HostOutput::jsonLine()
{
    Pipe pipe;
    Output output(OutputFormat::Json, Framing::Lines, pipe.writer());
    output.write({output.headOf(origin), "hello"});
    output.flush();
    QCOMPARE(pipe.read(),
             QByteArray(R"({"time":"2026-01-02T03:04:05Z","plugin":"tcp",)"
                        R"("source":"TCP:tcp2:127.0.0.1:7446-127.0.0.2:40001",)"
                        R"("peer":"127.0.0.2","port":40001,)"
                        R"("client":"tcp2:127.0.0.1:7446-127.0.0.2:40001","task":3,)"
                        R"("bytes":5,"text":"hello"})"
                        "\n"));
}

void tst_HostOutput::jsonContent_data()
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

void tst_HostOutput::jsonContent()
{
    QFETCH(QByteArray, bytes);
    QFETCH(bool, isText);

    Pipe pipe;
    Output output(OutputFormat::Json, Framing::Lines, pipe.writer());
    output.write({output.headOf(origin), bytes});
    output.flush();

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
void tst_HostOutput::jsonKeepsByteOrderMark()
{
    Pipe pipe;
    Output output(OutputFormat::Json, Framing::Lines, pipe.writer());
    output.write({output.headOf(origin), "\xef\xbb\xbf!"});
    output.flush();
    QVERIFY(pipe.read().endsWith("\"bytes\":4,\"text\":\"\xef\xbb\xbf!\"}\n"));
}

void tst_HostOutput::jsonNamesNeedEscapes()
{
    Pipe pipe;
    Output output(OutputFormat::Json, Framing::Lines, pipe.writer());
    Origin odd = origin;
    odd.plugin = QStringLiteral("\"\\\n\u00e4");
    output.write({output.headOf(odd), "a"});
    output.flush();
    const QJsonObject object = QJsonDocument::fromJson(pipe.read()).object();
    QCOMPARE(object.value(QStringLiteral("plugin")).toString(), odd.plugin);
}

void tst_HostOutput::partial()
{
    Pipe pipe;
    Output output(OutputFormat::Json, Framing::Lines, pipe.writer());
    output.write({output.headOf(origin), "hel", true});
    output.flush();
    const QByteArray line = pipe.read();
    QVERIFY2(line.endsWith(R"("bytes":3,"text":"hel","partial":true})"
                           "\n"),
             line.constData());
}

void tst_HostOutput::raw_data()
{
    QTest::addColumn<Framing>("framing");
    QTest::addColumn<QByteArray>("expected");

    QTest::newRow("lines") << Framing::Lines << QByteArray("ab\n\nc\n");
    QTest::newRow("length") << Framing::Length << QByteArray("\0\0\0\2ab\0\0\0\0\0\0\0\1c", 15);
    QTest::newRow("none") << Framing::None << QByteArray("abc");
}

void tst_HostOutput::raw()
{
    QFETCH(Framing, framing);
    Pipe pipe;
    Output output(OutputFormat::Raw, framing, pipe.writer());
    output.write({output.headOf(origin), "ab"});
    output.write({output.headOf(origin), ""});
    output.write({output.headOf(origin), "partial", true});
    output.write({output.headOf(origin), "c"});
    output.flush();
    QTEST(pipe.read(), "expected");
}

void tst_HostOutput::quietFormats()
{
    for (const OutputFormat format : {OutputFormat::Count, OutputFormat::None}) {
        Pipe pipe;
        Output output(format, Framing::Lines, pipe.writer());
        output.write({output.headOf(origin), "ab"});
        output.write({output.headOf(origin), "ab", true});
        output.flush();
        QCOMPARE(pipe.read(), QByteArray());
    }
}

void tst_HostOutput::count()
{
    Pipe pipe;
    Output output(OutputFormat::Count, Framing::Lines, pipe.writer());
    output.writeCount(QStringLiteral("messages 1"));
    output.flush();
    QCOMPARE(pipe.read(), QByteArray("messages 1\n"));
}

void tst_HostOutput::countOnlyWhereAsked()
{
    for (const OutputFormat format : {OutputFormat::Json, OutputFormat::Raw, OutputFormat::None}) {
        Pipe pipe;
        Output output(format, Framing::Lines, pipe.writer());
        output.writeCount(QStringLiteral("messages 1"));
        output.flush();
        QCOMPARE(pipe.read(), QByteArray());
    }
}

// The messages of one turn of the event loop are written with one system call, without delay.
void tst_HostOutput::batch()
{
    Pipe pipe;
    Output output(OutputFormat::Raw, Framing::Lines, pipe.writer());
    output.write({output.headOf(origin), "a"});
    output.write({output.headOf(origin), "b"});
    QCOMPARE(pipe.read(), QByteArray());
    QCoreApplication::sendPostedEvents();
    QCOMPARE(pipe.read(), QByteArray("a\nb\n"));
    output.write({output.headOf(origin), "c"});
    QCoreApplication::sendPostedEvents();
    QCOMPARE(pipe.read(), QByteArray("c\n"));
}

void tst_HostOutput::largeBatch()
{
    Pipe pipe;
    ::fcntl(pipe.writer(), F_SETPIPE_SZ, 1 << 20);
    Output output(OutputFormat::Raw, Framing::None, pipe.writer());
    const QByteArray message(1000, 'x');
    for (int n = 0; n < 100; ++n)
        output.write({output.headOf(origin), message});
    const QByteArray early = pipe.read();
    QVERIFY(early.size() > 64 * 1024);
    output.flush();
    QCOMPARE(early.size() + pipe.read().size(), 100000);
}

// The pipe is non-blocking and small. So the output has to wait, and it loses nothing.
void tst_HostOutput::slowReader()
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
    Output output(OutputFormat::Raw, Framing::None, pipe.writer());
    QSignalSpy failed(&output, &Output::failed);
    for (int n = 0; n < 10; ++n)
        output.write({output.headOf(origin), QByteArray(total / 10, static_cast<char>('0' + n))});
    output.flush();
    reader.join();
    QCOMPARE(failed.count(), 0);
    QCOMPARE(received.size(), total);
    for (int n = 0; n < 10; ++n)
        QCOMPARE(received.count(static_cast<char>('0' + n)), total / 10);
}

void tst_HostOutput::closedPipe()
{
    Pipe pipe;
    pipe.closeReader();
    Output output(OutputFormat::Raw, Framing::Lines, pipe.writer());
    QSignalSpy failed(&output, &Output::failed);
    output.flush();
    QCOMPARE(failed.count(), 0); // there was nothing to write
    for (int n = 0; n < 3; ++n) {
        output.write({output.headOf(origin), "a"});
        output.flush();
    }
    QCOMPARE(failed.count(), 1);
    QCOMPARE(failed.first().first().toString(), QString::fromLocal8Bit(std::strerror(EPIPE)));
}

void tst_HostOutput::fullDevice()
{
    const int full = ::open("/dev/full", O_WRONLY | O_CLOEXEC);
    QVERIFY(full >= 0);
    const auto closing = qScopeGuard([full] { ::close(full); });
    Output output(OutputFormat::Json, Framing::Lines, full);
    QSignalSpy failed(&output, &Output::failed);
    output.write({output.headOf(origin), "a"});
    QTRY_COMPARE(failed.count(), 1);
    QCOMPARE(failed.first().first().toString(), QString::fromLocal8Bit(std::strerror(ENOSPC)));
}

QTEST_GUILESS_MAIN(tst_HostOutput)
#include "tst_hostoutput.moc"
