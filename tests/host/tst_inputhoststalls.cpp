// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "host/exitcodes.h"
#include "tests/host/inputhosttest.h"
#include "tests/kit/hangguard.h"
#include "tests/kit/smallpipe.h"

#include <QtTest/QtTest>

#include <csignal>
#include <memory>
#include <vector>

#include <unistd.h>

using namespace host;
using namespace inputhosttest;

namespace {

// The pipe takes the place of one of the program's standard streams.
void giveTo(Host &host, const SmallPipe &pipe, int stream)
{
    host.process.setChildProcessModifier([&pipe, stream] { ::dup2(pipe.writer(), stream); });
}

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
    SmallPipe pipe;
    Host host;
    giveTo(host, pipe, STDOUT_FILENO);
    host.start(words("--output raw --framing none"));
    Device device(host);
    const QByteArray sent(100000, 'x');
    device.send(sent);
    const QByteArray beginning = "Nobody reads standard output: messages wait for that\n";
    QTRY_VERIFY2_WITH_TIMEOUT(host.log().contains(beginning), host.log().constData(), HangGuardMs);
    QVERIFY(!host.log().contains("Writing to standard output goes on"));

    QByteArray received;
    const auto goesOn = [&] {
        received += pipe.read();
        return received.size() == sent.size()
                && host.log().contains("Writing to standard output goes on, after ");
    };
    QTRY_VERIFY2_WITH_TIMEOUT(goesOn(), host.log().constData(), HangGuardMs);
    const QRegularExpression pattern(QStringLiteral(
            "warning: [0-9:.]+ Writing to standard output goes on, after (\\d+) ms\n"));
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
    SmallPipe pipe;
    Host host;
    giveTo(host, pipe, STDERR_FILENO);
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
    SmallPipe pipe;
    Host host;
    giveTo(host, pipe, STDERR_FILENO);
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
// of them first, only those that it has read until it was full.
void tst_InputHostStalls::oneDeviceHoldsNobodyUp()
{
    constexpr qsizetype messages = 16 * 1024 * 1024;
    constexpr qsizetype mostRead = 10 * 1024 * 1024;
    SmallPipe pipe; // until it is read, the program prints no more
    Host host;
    giveTo(host, pipe, STDOUT_FILENO);
    host.start(words("--output raw --log-level debug"));
    Device bad(host);
    Device good(host);
    QTRY_COMPARE_WITH_TIMEOUT(host.log().count("new client added"), 2, HangGuardMs);
    bad.socket.write(QByteArray(messages, '\n')); // the host does not take all of it yet
    QTRY_VERIFY_WITH_TIMEOUT(pipe.isFull(), HangGuardMs);
    const QByteArray line = QByteArray(2000, 'g') + '\n';
    good.send(line);
    QTRY_VERIFY_WITH_TIMEOUT(host.log().contains("msgsize = 2001\n"), HangGuardMs);

    pipe.enlarge();
    QByteArray received;
    const auto isComplete = [&] {
        received += pipe.read();
        QCoreApplication::processEvents(); // which send the rest
        return received.size() == messages + line.size();
    };
    const QDeadlineTimer guard(LoadHangGuardMs);
    while (!isComplete() && !guard.hasExpired()) {}
    QCOMPARE(received.size(), messages + line.size());
    QVERIFY2(received.indexOf(line) < mostRead, QByteArray::number(received.indexOf(line)));
    QCOMPARE(host.stop(), int(ExitOk));
}

QTEST_GUILESS_MAIN(tst_InputHostStalls)
#include "tst_inputhoststalls.moc"
