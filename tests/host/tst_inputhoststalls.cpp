// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "host/exitcodes.h"
#include "tests/host/inputhosttest.h"
#include "tests/kit/hangguard.h"

#include <QtTest/QtTest>

#include <csignal>
#include <memory>
#include <vector>

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

using namespace host;
using namespace inputhosttest;

namespace {

//! A small pipe in place of one of a program's standard streams. Only read() reads it.
class Pipe
{
public:
    Pipe()
    {
        if (::pipe2(ends, O_CLOEXEC) != 0 || ::fcntl(ends[1], F_SETPIPE_SZ, 4096) < 0)
            qFatal("no pipe");
    }
    ~Pipe()
    {
        ::close(ends[0]);
        closeWriter();
    }
    Q_DISABLE_COPY_MOVE(Pipe)

    void giveTo(Host &host, int stream) const
    {
        host.process.setChildProcessModifier([this, stream] { ::dup2(ends[1], stream); });
    }
    void closeWriter()
    {
        if (ends[1] >= 0)
            ::close(std::exchange(ends[1], -1));
    }
    bool isFull() const
    {
        pollfd request = {ends[1], POLLOUT, 0};
        return ::poll(&request, 1, 0) == 0;
    }
    // The bytes that are there now. If they are fewer than atLeast, waits for more.
    QByteArray read(qsizetype atLeast = 0) const
    {
        QByteArray result;
        pollfd request = {ends[0], POLLIN, 0};
        while (::poll(&request, 1, result.size() < atLeast ? HangGuardMs : 0) == 1) {
            char buffer[4096];
            const ssize_t size = ::read(ends[0], buffer, sizeof buffer);
            if (size <= 0)
                break;
            result.append(buffer, size);
        }
        return result;
    }

private:
    int ends[2] = {-1, -1};
};

} // namespace

// Nobody reads the program's output or its log.
class tst_InputHostStalls : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void outputThatIsNotRead();
    void logThatIsNotRead();
    void endOfALogThatIsNotRead();
    void oneDeviceHoldsNobodyUp();
};

void tst_InputHostStalls::outputThatIsNotRead()
{
    Pipe pipe;
    Host host;
    pipe.giveTo(host, STDOUT_FILENO);
    host.start(words("--output raw --framing none"));
    Device device(host);
    const QByteArray sent(100000, 'x');
    device.send(sent);
    const QByteArray beginning = "Nobody reads standard output: everything waits for that\n";
    QTRY_VERIFY2_WITH_TIMEOUT(host.log().contains(beginning), host.log().constData(), HangGuardMs);
    QVERIFY(!host.log().contains("is read again"));

    QByteArray received;
    const auto goesOn = [&] {
        received += pipe.read();
        return received.size() == sent.size() && host.log().contains("is read again, after ");
    };
    QTRY_VERIFY2_WITH_TIMEOUT(goesOn(), host.log().constData(), HangGuardMs);
    const QRegularExpression pattern(
            QStringLiteral("warning: [0-9:.]+ Standard output is read again, after (\\d+) ms\n"));
    const auto match = pattern.match(QString::fromLocal8Bit(host.log()));
    QVERIFY2(match.captured(1).toInt() >= 1000, host.log().constData());
    QCOMPARE(host.log().count(beginning), 1);
    pipe.read();
    QCOMPARE(host.stop(), int(ExitOk));
}

// Nearly all lines come from worker threads. Neither they nor the main thread wait for a reader.
void tst_InputHostStalls::logThatIsNotRead()
{
    constexpr int devices = 300; // each causes about 1000 bytes of lines
    Pipe pipe;
    Host host;
    pipe.giveTo(host, STDERR_FILENO);
    host.run(host.listenArguments() + words("--log-level debug"));
    QTRY_VERIFY_WITH_TIMEOUT(canConnect(host.port), HangGuardMs);
    QTRY_VERIFY_WITH_TIMEOUT(pipe.isFull(), HangGuardMs);
    for (int n = 0; n < devices; ++n) {
        Device device(host);
        device.send("a\n");
        device.close();
    }
    QTRY_COMPARE_WITH_TIMEOUT(host.lines().size(), devices, HangGuardMs);

    QByteArray log;
    host.signal(SIGTERM);
    const auto isComplete = [&] {
        log += pipe.read();
        return log.contains("\nmessages ") && log.endsWith('\n');
    };
    QTRY_VERIFY2_WITH_TIMEOUT(isComplete(), log.right(1000).constData(), HangGuardMs);
    QCOMPARE(host.finish(), int(ExitOk));
    QVERIFY2(log.contains("\nmessages 300 bytes 300 "), log.right(1000).constData());
    QVERIFY(log.count("TcpTask2: new connection ") >= devices);
    QVERIFY(!log.contains("dropped"));
}

void tst_InputHostStalls::endOfALogThatIsNotRead()
{
    Pipe pipe;
    Host host;
    pipe.giveTo(host, STDERR_FILENO);
    host.run(host.listenArguments() + words("--log-level debug --exit-after 1"));
    QTRY_VERIFY_WITH_TIMEOUT(canConnect(host.port), HangGuardMs);
    QTRY_VERIFY_WITH_TIMEOUT(pipe.isFull(), HangGuardMs);
    for (int n = 0; n < 10; ++n)
        QVERIFY(canConnect(host.port));
    Device device(host);
    device.send("a\n");
    QCOMPARE(host.finish(), int(ExitOk));
    QCOMPARE(host.lines().size(), 1);
}

// Millions of messages have arrived before a good device sends one. The program must not print all
// of them first.
void tst_InputHostStalls::oneDeviceHoldsNobodyUp()
{
    constexpr qsizetype messages = 3000000;
    Pipe pipe; // until it is read, the program prints no more
    Host host;
    pipe.giveTo(host, STDOUT_FILENO);
    host.start(words("--output raw --log-level debug"));
    Device bad(host);
    Device good(host);
    QTRY_COMPARE_WITH_TIMEOUT(host.log().count("new client added"), 2, HangGuardMs);
    bad.send(QByteArray(messages, '\n'));
    QTRY_VERIFY_WITH_TIMEOUT(pipe.isFull(), HangGuardMs);
    const QByteArray line = QByteArray(2000, 'g') + '\n';
    good.send(line);
    QTRY_VERIFY_WITH_TIMEOUT(host.log().contains("msgsize = 2001\n"), HangGuardMs);

    const QByteArray received = pipe.read(messages + line.size());
    QCOMPARE(received.size(), messages + line.size());
    QVERIFY2(received.indexOf(line) < messages / 4, QByteArray::number(received.indexOf(line)));
    QCOMPARE(host.stop(), int(ExitOk));
}

QTEST_GUILESS_MAIN(tst_InputHostStalls)
#include "tst_inputhoststalls.moc"
