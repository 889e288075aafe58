// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "host/exitcodes.h"
#include "tests/host/inputhosttest.h"
#include "tests/kit/hangguard.h"
#include "tests/kit/nativesocket.h"

#include <QtTest/QtTest>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <memory>
#include <vector>

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

using namespace host;
using namespace inputhosttest;

namespace {

QByteArray cannotWrite(int error)
{
    return QByteArray("Cannot write to standard output: ") + std::strerror(error);
}

} // namespace

// The end of the program: by a signal, or because its output cannot be written.
class tst_InputHostStopping : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void stopPrintsWhatIsStillComing_data();
    void stopPrintsWhatIsStillComing();
    void stopWithManyDevices();
    void partialAtStop();
    void partialOfAClosedConnection_data();
    void partialOfAClosedConnection();
    void secondSignalEndsABlockedProgram();
    void drains();
    void drainEndsWhoDoesNotClose();
    void otherSignalEndsTheDrain();
    void secondSignalTellsWhatIsNotSafe();

    void closedPipe();
    void closedOutput();
    void fullOutput();
};

void tst_InputHostStopping::stopPrintsWhatIsStillComing_data()
{
    QTest::addColumn<int>("signal");
    QTest::newRow("SIGINT") << SIGINT;
    QTest::newRow("SIGTERM") << SIGTERM;
}

void tst_InputHostStopping::stopPrintsWhatIsStillComing()
{
    QFETCH(int, signal);
    Host host;
    host.start();
    Device device(host);
    device.send("a\n");
    QTRY_COMPARE_WITH_TIMEOUT(host.lines().size(), 1, HangGuardMs);
    // As a rule it comes too soon after the first offer, so it is offered only at the stop.
    device.send("b\n");
    QCOMPARE(host.stop(signal), int(ExitOk));
    QCOMPARE(host.texts(), QStringList({QStringLiteral("a"), QStringLiteral("b")}));
    QVERIFY2(host.log().contains("\nmessages 2 bytes 2 connections 1 "), host.log().constData());
}

// Each device has sent bytes that were not offered yet.
void tst_InputHostStopping::stopWithManyDevices()
{
    constexpr int devices = 300;
    Host host;
    host.start();
    std::vector<std::unique_ptr<Device>> all;
    QStringList expected;
    for (int n = 0; n < devices; ++n) {
        all.push_back(std::make_unique<Device>(host));
        all.back()->send("a\n");
        expected += QStringLiteral("a");
    }
    QTRY_COMPARE_WITH_TIMEOUT(host.lines().size(), devices, HangGuardMs);
    for (int n = 0; n < devices; ++n) {
        const QByteArray text = QByteArray::number(n);
        all.at(static_cast<size_t>(n))->send(text + '\n');
        expected += QString::fromLatin1(text);
    }
    QCOMPARE(host.stop(), int(ExitOk));
    QStringList texts = host.texts();
    texts.sort();
    expected.sort();
    QCOMPARE(texts, expected);
}

void tst_InputHostStopping::partialAtStop()
{
    Host host;
    host.start();
    Device device(host);
    device.send("a\nhalf");
    QTRY_COMPARE_WITH_TIMEOUT(host.lines().size(), 1, HangGuardMs);
    QCOMPARE(host.stop(), int(ExitOk));
    QCOMPARE(host.texts(), QStringList({QStringLiteral("a"), QStringLiteral("half")}));
    QVERIFY(!host.record(0).contains(QStringLiteral("partial")));
    QCOMPARE(host.record(1).value(QStringLiteral("partial")), QJsonValue(true));
    QCOMPARE(host.record(1).value(QStringLiteral("bytes")), QJsonValue(4));
}

void tst_InputHostStopping::partialOfAClosedConnection_data()
{
    QTest::addColumn<QStringList>("arguments");
    QTest::newRow("end is told") << QStringList();
    QTest::newRow("all ends are told") << words("--set ends=all");
    QTest::newRow("end is told, without offsets") << words("--set offsets=false");
    QTest::newRow("silence") << words("--set ends=false --set timeout=1");
    QTest::newRow("silence, without offsets")
            << words("--set ends=false --set offsets=false --set timeout=1");
}

// If the plugin reports the end, the partial message is printed at once. Waiting for the idle
// time-out would take too long for this test.
void tst_InputHostStopping::partialOfAClosedConnection()
{
    QFETCH(QStringList, arguments);
    Host host;
    host.start(arguments);
    {
        Device device(host);
        device.send("half");
        device.close();
    }
    QTRY_COMPARE_WITH_TIMEOUT(host.lines().size(), 1, HangGuardMs);
    QCOMPARE(host.record(0).value(QStringLiteral("text")).toString(), QStringLiteral("half"));
    QCOMPARE(host.record(0).value(QStringLiteral("partial")), QJsonValue(true));
    QCOMPARE(host.stop(), int(ExitOk));
    QCOMPARE(host.lines().size(), 1);
}

// Nobody reads the program's output, so it cannot stop in the normal way.
void tst_InputHostStopping::secondSignalEndsABlockedProgram()
{
    int ends[2] = {-1, -1};
    QCOMPARE(::pipe2(ends, O_CLOEXEC), 0);
    const auto closing = qScopeGuard([&ends] {
        ::close(ends[0]);
        ::close(ends[1]);
    });
    const int capacity = ::fcntl(ends[1], F_SETPIPE_SZ, 4096);
    QVERIFY(capacity > 0);

    Host host;
    host.process.setChildProcessModifier([&ends] { ::dup2(ends[1], STDOUT_FILENO); });
    host.start(words("--output raw --framing none"));
    Device device(host);
    device.send(QByteArray(2 * capacity, 'x'));
    const auto isFull = [&ends] {
        pollfd request = {ends[1], POLLOUT, 0};
        return ::poll(&request, 1, 0) == 0;
    };
    QTRY_VERIFY_WITH_TIMEOUT(isFull(), HangGuardMs);
    // Equal pending signals merge into one, so send until the program has ended.
    const auto isGone = [&host] {
        host.signal(SIGTERM);
        return !host.isRunning();
    };
    QTRY_VERIFY_WITH_TIMEOUT(isGone(), HangGuardMs);
    QCOMPARE(host.finish(), -1);
}

void tst_InputHostStopping::drains()
{
    Host host;
    host.start(words("--drain 1"));
    auto device = NativeSocket::connectedTo(testAddress(), host.port);
    QVERIFY(device.send("a\n"));
    QTRY_COMPARE_WITH_TIMEOUT(host.lines().size(), 1, HangGuardMs);
    host.signal(SIGTERM);
    QVERIFY(device.ends());
    QVERIFY(device.send("b\n"));
    host.signal(SIGHUP); // changes nothing any more
    QTRY_VERIFY_WITH_TIMEOUT(host.log().contains("Configuration not read: "), HangGuardMs);
    QVERIFY(!NativeSocket::connectedTo(testAddress(), host.port).isValid());
    QVERIFY(host.isRunning());
    QVERIFY(device.send("c\n"));
    device.close();
    QCOMPARE(host.finish(), int(ExitOk));
    QCOMPARE(host.texts(),
             QStringList({QStringLiteral("a"), QStringLiteral("b"), QStringLiteral("c")}));
    QVERIFY(host.log().contains("Stopping: devices are told within 1 s"));
    QVERIFY2(!host.log().contains("were not closed"), host.log().constData());
}

void tst_InputHostStopping::drainEndsWhoDoesNotClose()
{
    Host host;
    host.start(words("--drain 1"));
    const auto device = NativeSocket::connectedTo(testAddress(), host.port);
    QVERIFY(device.send("a\n"));
    QTRY_COMPARE_WITH_TIMEOUT(host.lines().size(), 1, HangGuardMs);
    QVERIFY(device.send("half"));
    QCOMPARE(host.stop(), int(ExitOk));
    QCOMPARE(host.texts(), QStringList({QStringLiteral("a"), QStringLiteral("half")}));
    QVERIFY(host.log().contains("1 connections were not closed by their devices, closing"));
}

void tst_InputHostStopping::otherSignalEndsTheDrain()
{
    Host host;
    host.start(words("--drain 3600"));
    const auto device = NativeSocket::connectedTo(testAddress(), host.port);
    QVERIFY(device.send("a\n"));
    QTRY_COMPARE_WITH_TIMEOUT(host.lines().size(), 1, HangGuardMs);
    QVERIFY(device.send("b\n"));
    host.signal(SIGTERM);
    QTRY_VERIFY_WITH_TIMEOUT(host.log().contains("Stopping: "), HangGuardMs);
    QCOMPARE(host.stop(SIGINT), int(ExitOk));
    QCOMPARE(host.texts(), QStringList({QStringLiteral("a"), QStringLiteral("b")}));
}

// Nobody reads the output, so it never has the whole message.
void tst_InputHostStopping::secondSignalTellsWhatIsNotSafe()
{
    int ends[2] = {-1, -1};
    QCOMPARE(::pipe2(ends, O_CLOEXEC), 0);
    const auto closing = qScopeGuard([&ends] {
        ::close(ends[0]);
        ::close(ends[1]);
    });
    const int capacity = ::fcntl(ends[1], F_SETPIPE_SZ, 4096);
    QVERIFY(capacity > 0);
    Host host;
    host.process.setChildProcessModifier([&ends] { ::dup2(ends[1], STDOUT_FILENO); });
    host.start(words("--output raw --drain 3600"));
    const auto device = NativeSocket::connectedTo(testAddress(), host.port);
    QVERIFY(device.send(QByteArray(2 * capacity, 'x') + '\n'));
    QTRY_VERIFY_WITH_TIMEOUT(host.counters().startsWith("messages 1 "), HangGuardMs);
    host.signal(SIGTERM);
    QTRY_VERIFY_WITH_TIMEOUT(host.log().contains("Stopping: "), HangGuardMs);
    QVERIFY(!host.log().contains("second signal"));
    QCOMPARE(host.stop(SIGTERM), -1);
    QVERIFY2(
            host.log().contains("\nwarning: Ended by a second signal: 1 messages are not safe, and "
                                "what the plugin has is lost\n"),
            host.log().constData());
}

void tst_InputHostStopping::closedPipe()
{
    int ends[2] = {-1, -1};
    QCOMPARE(::pipe2(ends, O_CLOEXEC), 0);
    Host host;
    host.process.setChildProcessModifier([&ends] { ::dup2(ends[1], STDOUT_FILENO); });
    host.start();
    ::close(ends[0]);
    ::close(ends[1]);
    Device device(host);
    device.send("a\n");
    QCOMPARE(host.finish(), int(ExitOutputFailed));
    QVERIFY2(host.log().contains("error: "), host.log().constData());
    QVERIFY2(host.log().contains(cannotWrite(EPIPE)), host.log().constData());
}

// A socket must not get the descriptor number of the closed standard output.
void tst_InputHostStopping::closedOutput()
{
    Host host;
    host.process.setChildProcessModifier([] { ::close(STDOUT_FILENO); });
    host.start();
    Device device(host);
    device.send("a\n");
    QCOMPARE(host.finish(), int(ExitOutputFailed));
    QVERIFY2(host.log().contains(cannotWrite(EBADF)), host.log().constData());
}

void tst_InputHostStopping::fullOutput()
{
    Host host;
    host.process.setStandardOutputFile(QStringLiteral("/dev/full"));
    host.start(words("--output count"));
    QCOMPARE(host.stop(), int(ExitOutputFailed));
    QVERIFY2(host.log().contains(cannotWrite(ENOSPC)), host.log().constData());
}

QTEST_GUILESS_MAIN(tst_InputHostStopping)
#include "tst_inputhoststopping.moc"
