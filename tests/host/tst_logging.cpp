// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "host/logging.h"
#include "host/logstream.h"

#include "plugin/cwrn.h"
#include "tests/kit/hangguard.h"

#include <QtCore/QDateTime>
#include <QtCore/QJsonDocument>
#include <QtCore/QJsonObject>
#include <QtCore/QRegularExpression>
#include <QtTest/QtTest>

#include <csignal>
#include <thread>
#include <vector>

#include <fcntl.h>
#include <unistd.h>

using namespace host;

namespace {

//! A pipe in place of standard error. Its writing end blocks, as usual.
class Pipe
{
public:
    Pipe()
    {
        if (::pipe2(ends, O_CLOEXEC) != 0 || ::fcntl(ends[1], F_SETPIPE_SZ, 4096) < 0)
            qFatal("no pipe");
        ::fcntl(ends[0], F_SETFL, O_NONBLOCK);
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
    // Reads until the text has this end. The text includes all that was read before.
    QByteArray readUntil(const QByteArray &end)
    {
        const QDeadlineTimer guard(HangGuardMs);
        while (!text.endsWith(end) && !guard.hasExpired()) {
            char buffer[4096];
            const ssize_t size = ::read(ends[0], buffer, sizeof buffer);
            if (size > 0)
                text.append(buffer, size);
            else
                std::this_thread::yield();
        }
        return text;
    }

private:
    int ends[2] = {-1, -1};
    QByteArray text;
};

QByteArray line(int number)
{
    return QByteArray::number(number).rightJustified(99, '.') + '\n';
}

} // namespace

// Log lines on their way to standard error.
class tst_Logging : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase() { std::signal(SIGPIPE, SIG_IGN); }
    void linesAreWrittenAtOnce();
    void nobodyWaitsForAReader();
    void countTakesThePlaceOfDroppedLines();
    void longTextIsNotCut();
    void linesOfThreadsDoNotMix();
    void endWaitsForASlowReader();
    void endDoesNotWaitForNobody();
    void closedStream();
    void linesOfALevelAreLimited();
    void jsonLines();
};

void tst_Logging::linesAreWrittenAtOnce()
{
    Pipe pipe;
    LogStream stream(pipe.writer());
    stream.write("a\n");
    stream.write("b\n");
    QCOMPARE(pipe.readUntil("b\n"), QByteArray("a\nb\n"));
    QVERIFY(stream.finish());
}

// The lines are far more than the pipe can hold. They are written, in order, when somebody reads.
void tst_Logging::nobodyWaitsForAReader()
{
    constexpr int lines = 5000; // 500 KB
    Pipe pipe;
    LogStream stream(pipe.writer());
    QByteArray expected;
    for (int n = 0; n < lines; ++n) {
        stream.write(line(n));
        expected += line(n);
    }
    QCOMPARE(pipe.readUntil(line(lines - 1)), expected);
    QVERIFY(stream.finish());
    stream.write("after\n");
    QVERIFY(pipe.readUntil("after\n").endsWith(line(lines - 1) + "after\n"));
    QVERIFY(stream.finish());
}

void tst_Logging::countTakesThePlaceOfDroppedLines()
{
    constexpr int lines = 30000; // 3 MB
    Pipe pipe;
    LogStream stream(pipe.writer());
    for (int n = 0; n < lines; ++n)
        stream.write(line(n));

    const QByteArray text = pipe.readUntil("standard error was not read\n");

    const QRegularExpression pattern(QStringLiteral(
            "\nwarning: \\d\\d:\\d\\d:\\d\\d\\.\\d{3} (\\d+) log lines dropped: standard error was "
            "not read\n$"));
    const auto match = pattern.match(QString::fromLatin1(text));
    QVERIFY2(match.hasMatch(), text.right(200).constData());
    const int dropped = match.captured(1).toInt();
    QVERIFY(dropped > 0 && dropped < lines);
    QByteArray expected;
    for (int n = 0; n < lines - dropped; ++n)
        expected += line(n);
    QVERIFY(text.startsWith(expected));
    QCOMPARE(text.count('\n'), lines - dropped + 1);
    stream.write("after\n");
    QVERIFY(pipe.readUntil("after\n").endsWith("not read\nafter\n"));
    QVERIFY(stream.finish()); // waits for its thread
}

// For example the status text of thousands of connections.
void tst_Logging::longTextIsNotCut()
{
    Pipe pipe;
    LogStream stream(pipe.writer());
    const QByteArray text = QByteArray(3 * 1024 * 1024, 'x') + "\n";
    stream.write(text);
    QCOMPARE(pipe.readUntil("\n"), text);
    QVERIFY(stream.finish());
}

void tst_Logging::linesOfThreadsDoNotMix()
{
    constexpr int lines = 200;
    Pipe pipe;
    LogStream stream(pipe.writer());
    std::vector<std::thread> writers;
    for (char name : {'a', 'b', 'c', 'd'})
        writers.emplace_back([&stream, name] {
            for (int n = 0; n < lines; ++n)
                stream.write(QByteArray(50, name) + '\n');
        });
    for (std::thread &writer : writers)
        writer.join();
    stream.write("end\n");
    const QByteArrayList all = pipe.readUntil("end\n").split('\n');
    QCOMPARE(all.size(), 4 * lines + 2);
    for (int n = 0; n < 4 * lines; ++n)
        QCOMPARE(all.at(n), QByteArray(50, all.at(n).at(0)));
    QVERIFY(stream.finish());
}

void tst_Logging::endWaitsForASlowReader()
{
    constexpr int lines = 1000;
    Pipe pipe;
    LogStream stream(pipe.writer());
    for (int n = 0; n < lines; ++n)
        stream.write(line(n));
    std::thread reader([&pipe] { pipe.readUntil(line(lines - 1)); });
    QVERIFY(stream.finish());
    reader.join();
    QCOMPARE(pipe.readUntil(line(lines - 1)).count('\n'), lines);
}

void tst_Logging::endDoesNotWaitForNobody()
{
    Pipe pipe;
    LogStream stream(pipe.writer());
    stream.write(QByteArray(100000, 'x') + '\n');
    QVERIFY(!stream.finish());
    pipe.readUntil("\n"); // otherwise the thread would outlive the stream
    QVERIFY(stream.finish());
}

void tst_Logging::closedStream()
{
    Pipe pipe;
    LogStream stream(pipe.writer());
    stream.write(QByteArray(100000, 'x') + '\n');
    pipe.closeReader();
    QVERIFY(stream.finish());
    stream.write("a\n");
    QVERIFY(stream.finish());
}

// No device can make the log grow without limit. At the level "debug" all lines are written.
void tst_Logging::linesOfALevelAreLimited()
{
    QTemporaryFile file;
    QVERIFY(file.open());
    const int given = ::dup(STDERR_FILENO);
    QVERIFY(::dup2(file.handle(), STDERR_FILENO) >= 0);
    const QtMessageHandler handler = qInstallMessageHandler(nullptr);
    installLogging(QStringLiteral("info"));
    for (int n = 0; n < 5000; ++n) {
        CWRN(QtDebugMsg, QStringLiteral("debug line"));
        CWRN(QtInfoMsg, QStringLiteral("info line"));
        CWRN(QtCriticalMsg, QStringLiteral("error line"));
    }
    CWRN(QtWarningMsg, QStringLiteral("warning line"));
    finishLogging();
    installLogging(QStringLiteral("debug"));
    for (int n = 0; n < 5000; ++n)
        CWRN(QtInfoMsg, QStringLiteral("another line"));
    finishLogging();
    qInstallMessageHandler(handler);
    ::dup2(given, STDERR_FILENO);
    ::close(given);

    QVERIFY(file.seek(0));
    const QByteArray text = file.readAll();
    QCOMPARE(text.count("debug line\n"), 0);
    QCOMPARE(text.count("info line\n"), 1001); // and the example of those that are missing
    QCOMPARE(text.count("error line\n"), 5000);
    QCOMPARE(text.count("warning line\n"), 1);
    QCOMPARE(text.count("\ninfo: 4000 more lines like this one within a minute, not shown: "), 1);
    QCOMPARE(text.count("another line\n"), 5000);
}

// What a log collector reads: an object a line, whatever is in the text.
void tst_Logging::jsonLines()
{
    QTemporaryFile file;
    QVERIFY(file.open());
    const int given = ::dup(STDERR_FILENO);
    QVERIFY(::dup2(file.handle(), STDERR_FILENO) >= 0);
    const QtMessageHandler handler = qInstallMessageHandler(nullptr);
    const QString hostile = QStringLiteral("a\n\x1b[31m\u009b31m\u202e\"\\</script>\u00e4");
    installLogging(QStringLiteral("info"), LogFormat::Json);
    CWRN(QtWarningMsg, QStringLiteral("peer %1"), hostile);
    qInfo("plain");
    report(QStringLiteral("one\ntwo\n"));
    finishLogging();
    installLogging(QStringLiteral("info"), LogFormat::Journal);
    CWRN(QtWarningMsg, QStringLiteral("peer %1"), hostile);
    qCritical("bad");
    report(QStringLiteral("one\ntwo\n"));
    finishLogging();
    installLogging(QStringLiteral("info"));
    qInstallMessageHandler(handler);
    ::dup2(given, STDERR_FILENO);
    ::close(given);

    QVERIFY(file.seek(0));
    const QByteArrayList lines = file.readAll().split('\n');
    QCOMPARE(lines.size(), 9);
    const auto object = [&lines](int n) { return QJsonDocument::fromJson(lines[n]).object(); };
    QCOMPARE(object(0).value(QStringLiteral("level")), QStringLiteral("warning"));
    QCOMPARE(object(0).value(QStringLiteral("text")), QStringLiteral("peer ") + hostile);
    QVERIFY(QDateTime::fromString(object(0).value(QStringLiteral("time")).toString(),
                                  Qt::ISODateWithMs)
                    .isValid());
    QVERIFY(!lines[0].contains('\x1b') && !lines[0].contains("\xc2\x9b"));
    QCOMPARE(object(1).value(QStringLiteral("text")), QStringLiteral("plain"));
    QCOMPARE(object(3).value(QStringLiteral("text")), QStringLiteral("two"));
    const QByteArray shown = "a\\n\\u001b[31m\\u009b31m\\u202e\"\\</script>\xc3\xa4";
    QVERIFY2(lines[4].startsWith("<4>warning: ") && lines[4].endsWith("peer " + shown),
             lines[4].constData());
    QCOMPARE(lines[5], QByteArray("<3>error: bad"));
    QCOMPARE(lines[7], QByteArray("<6>info: two"));
}

QTEST_GUILESS_MAIN(tst_Logging)
#include "tst_logging.moc"
