// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "host/exitcodes.h"
#include "tests/host/inputhosttest.h"
#include "tests/kit/hangguard.h"
#include "tests/kit/testaddress.h"

#include <QtTest/QtTest>

#include <csignal>

#include <sys/resource.h>

using namespace host;
using namespace inputhosttest;

// What an operator can see of the program: status, counters and log levels.
class tst_InputHostStatus : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void status_data();
    void status();
    void statusEvery();
    void limits_data();
    void limits();
    void logLevels();
    void answersTheLogLevelQuery();
    void raisesTheDescriptorLimit();
};

void tst_InputHostStatus::status_data()
{
    QTest::addColumn<QStringList>("arguments");
    QTest::addColumn<bool>("connections");

    QTest::newRow("by default") << QStringList() << false;
    QTest::newRow("connections") << words("--status-connections") << true;
}

void tst_InputHostStatus::status()
{
    QFETCH(QStringList, arguments);
    QFETCH(bool, connections);
    Host host;
    host.start(words("--set timeout=99 --set threadpoolSize=2 --max-message 3") + arguments);
    Device device(host);
    device.send("a\nlong\nhal");
    QTRY_COMPARE_WITH_TIMEOUT(host.lines().size(), 1, HangGuardMs);
    host.signal(SIGUSR1);
    const QByteArray address = testAddress().toString().toLatin1();
    const QByteArray port = QByteArray::number(host.port);
    const QByteArray peer = device.socket.localAddress().toString().toLatin1() + ':'
            + QByteArray::number(device.socket.localPort());
    // The status text has "\r\n". On standard error its lines end with "\n", as all others do.
    const QByteArray expected = "messages 1 bytes 1 connections 1 partial 0 too-long 1 offers 1\n"
                                "Listen: "
            + address + ':' + port + ", timeout: 99s, pool size: 2\n"
            + (connections ? "   tcp2:" + address + ':' + port + '-' + peer + "\n      (empty 0)\n"
                           : QByteArray())
            + "Limits: ";
    QTRY_VERIFY2_WITH_TIMEOUT(host.log().contains(expected), host.log().constData(), HangGuardMs);
    const int exitCode = host.stop();
    QVERIFY2(exitCode == ExitOk, host.log().constData());
    QVERIFY(host.log().endsWith(
            "messages 1 bytes 1 connections 1 partial 1 too-long 1 offers 1\n"));
}

void tst_InputHostStatus::statusEvery()
{
    Host host;
    host.start(words("--status-every 1"));
    const QByteArray text = "messages 0 bytes 0 connections 0 partial 0 too-long 0 offers 0\n"
                            "Listen: ";
    QTRY_VERIFY_WITH_TIMEOUT(host.log().count(text) >= 2, HangGuardMs);
}

void tst_InputHostStatus::limits_data()
{
    QTest::addColumn<QString>("given");
    QTest::addColumn<bool>("bytes");
    QTest::addColumn<bool>("connections");

    QTest::newRow("by default") << QString() << true << false;
    QTest::newRow("none") << "{}" << false << false;
    QTest::newRow("others") << R"({"maxConnections":5})" << false << true;
}

// "limits" that are given replace all of the default ones.
void tst_InputHostStatus::limits()
{
    QFETCH(QString, given);
    Host host;
    QStringList arguments;
    if (!given.isEmpty())
        arguments = {QStringLiteral("--set"), QStringLiteral("limits=") + given};
    host.start(arguments);
    host.signal(SIGUSR1);
    QTRY_VERIFY_WITH_TIMEOUT(host.log().contains("Listen: "), HangGuardMs);
    QCOMPARE(host.stop(), int(ExitOk));
    QTEST(host.log().contains(" bytes held"), "bytes");
    QTEST(host.log().contains(" connections open, "), "connections");
}

void tst_InputHostStatus::logLevels()
{
    for (const char *level : {"debug", "info", "warning"}) {
        Host host;
        host.run(host.listenArguments() + words("--exit-after 1 --max-message 5 --log-level")
                 + words(level));
        QTRY_VERIFY_WITH_TIMEOUT(canConnect(host.port), HangGuardMs);
        Device device(host);
        device.send("too long\na\n");
        QCOMPARE(host.finish(), int(ExitOk));
        const QByteArray log = host.log();
        const bool isDebug = qstrcmp(level, "debug") == 0;
        const bool isWarning = qstrcmp(level, "warning") == 0;
        QCOMPARE(log.contains("debug: "), isDebug);
        QCOMPARE(log.contains("info: "), !isWarning);
        // canConnect() has made a connection. The program may end before a worker takes it: then
        // there is one more warning.
        const auto droppedAtStop = log.count("Creating receiving socket failed");
        QVERIFY2(log.count("warning: ") - droppedAtStop == 1, log.constData());
        QCOMPARE(host.lines().size(), 1);
    }
}

// The plugin asks for the log level every ten seconds. If the level is debug, it logs its threads.
void tst_InputHostStatus::answersTheLogLevelQuery()
{
    Host quiet;
    quiet.start();
    Host talkative;
    talkative.start(words("--log-level debug"));
    QTRY_VERIFY_WITH_TIMEOUT(talkative.log().contains("#threads = 0, #tasks = 0"), HangGuardMs);
    QVERIFY(!quiet.log().contains("#threads"));
}

void tst_InputHostStatus::raisesTheDescriptorLimit()
{
    Host host;
    host.process.setChildProcessModifier([] {
        rlimit limit = {100, 200};
        ::setrlimit(RLIMIT_NOFILE, &limit);
    });
    host.start();
    QFile limits(QStringLiteral("/proc/%1/limits").arg(host.process.processId()));
    QVERIFY(limits.open(QIODevice::ReadOnly));
    const QString text = QString::fromLatin1(limits.readAll());
    QVERIFY2(text.contains(QRegularExpression(QStringLiteral("Max open files +200 +200"))),
             qPrintable(text));
}

QTEST_GUILESS_MAIN(tst_InputHostStatus)
#include "tst_inputhoststatus.moc"
