// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "simulatorreceivers.h"
#include "tests/kit/hangguard.h"
#include "tests/kit/locales.h"
#include "tests/kit/testaddress.h"
#include "tests/simulator/simulatortest.h"

#include <QtCore/QRegularExpression>
#include <QtTest/QTest>

#include <cerrno>
#include <csignal>
#include <cstring>

using namespace simulator;
using namespace simulatortest;

// The program devicesim: its report and its exit status.
class tst_DeviceSimReport : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void stopsAtMessageEnd_data();
    void stopsAtMessageEnd();
    void tellsItsProgress();
    void countsWhatTheKernelAccepted();

    void nobodyListens();
    void peerEndsEarly_data();
    void peerEndsEarly();
    void stopsReconnectingAfterFailure();
    void wrongCommandLine();
    void anyLocale_data();
    void anyLocale();
    void reportsTexts();
    void reportsSummaryOnly();
};

void tst_DeviceSimReport::stopsAtMessageEnd_data()
{
    QTest::addColumn<int>("signal");
    QTest::newRow("SIGINT") << SIGINT;
    QTest::newRow("SIGTERM") << SIGTERM;
}

void tst_DeviceSimReport::stopsAtMessageEnd()
{
    QFETCH(const int, signal);
    Receiver receiver;
    QVERIFY(receiver.listen(testAddress()));
    Simulator simulator;
    simulator.start(receiver, words("--messages 0 --segments byte --pause-ms 1 --size 20"));
    QTRY_COMPARE_WITH_TIMEOUT(receiver.peers.size(), 1, HangGuardMs);
    QTRY_VERIFY_WITH_TIMEOUT(receiver.peers.first()->bytes.size() > 30, HangGuardMs);
    simulator.signal(signal);
    QVERIFY(simulator.waitForEnd());

    QCOMPARE(simulator.exitCode(), 0);
    QTRY_COMPARE_WITH_TIMEOUT(receiver.peers.first()->ended, Peer::Fin, HangGuardMs);
    QVERIFY(simulator.summary().value(text("interrupted")).toBool());
    const int messages = number(simulator.connection(), "messages");
    QVERIFY(messages >= 2);
    Options options;
    options.size = 20;
    QCOMPARE(receiver.peers.first()->bytes, stream(1, 1, static_cast<quint64>(messages), options));
}

void tst_DeviceSimReport::tellsItsProgress()
{
    Receiver receiver;
    QVERIFY(receiver.listen(testAddress()));
    Simulator simulator;
    simulator.start(receiver,
                    words("--connections 3 --parallel 2 --messages 5 --size 9 --close stay"));
    QTRY_COMPARE_WITH_TIMEOUT(receiver.peers.size(), 2, HangGuardMs);
    for (const auto &peer : receiver.peers)
        QTRY_COMPARE_WITH_TIMEOUT(peer->bytes.size(), 50, HangGuardMs);
    simulator.signal(SIGUSR1);
    QByteArray errors;
    QTRY_VERIFY_WITH_TIMEOUT((errors += simulator.errors()).endsWith('\n'), HangGuardMs);
    QCOMPARE(errors, QByteArray("2 devices started, 2 active; 10 messages\n"));

    simulator.signal(SIGTERM);
    QVERIFY(simulator.waitForEnd());
    QCOMPARE(simulator.exitCode(), 0);
}

void tst_DeviceSimReport::countsWhatTheKernelAccepted()
{
    Receiver receiver;
    receiver.reads = false;
    QVERIFY(receiver.listen(testAddress()));
    Simulator simulator;
    // The message is larger than the kernels' buffers, so it cannot be sent completely.
    simulator.start(receiver, words("--messages 0 --size 60000000"));
    QTRY_COMPARE_WITH_TIMEOUT(receiver.peers.size(), 1, HangGuardMs);
    QTRY_VERIFY_WITH_TIMEOUT(receiver.peers.first()->bytesWait(), HangGuardMs);
    simulator.signal(SIGTERM);
    simulator.signal(SIGINT); // otherwise it would wait for the receiver, which does not read
    QVERIFY(simulator.waitForEnd());
    QCOMPARE(simulator.exitCode(), 0);

    // The kernel delivers all bytes that it has accepted, even after the end of the program.
    Peer *peer = receiver.peers.first();
    peer->startReading();
    QTRY_COMPARE_WITH_TIMEOUT(peer->ended, Peer::Fin, HangGuardMs);
    QCOMPARE(number(simulator.connection(), "bytes"), peer->bytes.size());
    QCOMPARE(simulator.connection().value(text("sha1")).toString().toLatin1(), sha1(peer->bytes));
    QVERIFY(!peer->bytes.isEmpty());
    QVERIFY(peer->bytes.size() < 60000000);
    QCOMPARE(number(simulator.connection(), "messages"), 0);
    QCOMPARE(end(simulator.connection()), text("abandoned"));
}

void tst_DeviceSimReport::nobodyListens()
{
    const DeafPort port;
    Simulator simulator;
    simulator.start(port.arguments() + words("--connections 3 --output json"));
    QVERIFY(simulator.waitForEnd());
    QCOMPARE(simulator.exitCode(), 1);
    QCOMPARE(number(simulator.summary(), "opened"), 0);
    QCOMPARE(number(simulator.summary(), "failed"), 3);
    QCOMPARE(end(simulator.connection()), text("failed"));
    QCOMPARE(simulator.connection().value(text("error")).toString(),
             QString::fromLocal8Bit(std::strerror(ECONNREFUSED)));
}

void tst_DeviceSimReport::peerEndsEarly_data()
{
    QTest::addColumn<bool>("resets");
    QTest::newRow("closes") << false;
    QTest::newRow("resets") << true;
}

void tst_DeviceSimReport::peerEndsEarly()
{
    QFETCH(const bool, resets);
    Receiver receiver;
    QVERIFY(receiver.listen(testAddress()));
    Simulator simulator;
    simulator.start(receiver, words("--messages 0 --rate 1")); // runs long enough to notice the end
    QTRY_COMPARE_WITH_TIMEOUT(receiver.peers.size(), 1, HangGuardMs);
    Peer *peer = receiver.peers.first();
    QTRY_VERIFY_WITH_TIMEOUT(!peer->bytes.isEmpty(), HangGuardMs);
    if (resets)
        peer->reset();
    else
        peer->close();
    QVERIFY(simulator.waitForEnd());
    QCOMPARE(simulator.exitCode(), 1);
    QCOMPARE(number(simulator.summary(), "opened"), 1);
    QCOMPARE(number(simulator.summary(), "failed"), 1);
    QCOMPARE(end(simulator.connection()), text("failed"));
    QVERIFY(!simulator.connection().value(text("error")).toString().isEmpty());
}

void tst_DeviceSimReport::stopsReconnectingAfterFailure()
{
    Receiver receiver;
    QVERIFY(receiver.listen(testAddress()));
    Simulator simulator;
    simulator.start(receiver, words("--messages 1000 --rate 100 --reconnect 1"));
    QTRY_COMPARE_WITH_TIMEOUT(receiver.peers.size(), 1, HangGuardMs);
    receiver.peers.first()->reset();
    QVERIFY(simulator.waitForEnd());
    QCOMPARE(simulator.exitCode(), 1);
    QCOMPARE(simulator.connections().size(), 1);
}

void tst_DeviceSimReport::wrongCommandLine()
{
    Simulator simulator;
    simulator.start(words("--close never"));
    QVERIFY(simulator.waitForEnd());
    QCOMPARE(simulator.exitCode(), 2);
    QCOMPARE(simulator.output, QByteArray());
    QCOMPARE(simulator.errors(),
             QByteArray("devicesim: --close: unknown value: never; it takes close, half-close, "
                        "abort, stay\n"));
}

void tst_DeviceSimReport::anyLocale_data()
{
    localeRows();
}

void tst_DeviceSimReport::anyLocale()
{
    QFETCH(const QStringList, environment);
    Simulator simulator;
    simulator.setEnvironment(environment);
    simulator.start(words("--help"));
    QVERIFY(simulator.waitForEnd());
    QCOMPARE(simulator.exitCode(), 0);
    QCOMPARE(simulator.errors(), QByteArray());
}

void tst_DeviceSimReport::reportsTexts()
{
    Receiver receiver;
    QVERIFY(receiver.listen(testAddress()));
    Simulator simulator;
    simulator.start(receiver, words("--connections 2 --messages 3 --output text"));
    QVERIFY(simulator.waitForEnd());
    QCOMPARE(simulator.exitCode(), 0);
    const QRegularExpression expected(
            text("\\Adevice 1 connection 1: 3 messages, 195 bytes, \\d+ ms, closed, local port "
                 "\\d+, sha1 %1\ndevice 2 connection 1: 3 messages, 195 bytes, \\d+ ms, closed, "
                 "local port \\d+, sha1 %2\n2 connections opened, 0 failed; 6 messages, 390 bytes "
                 "in \\d+ ms\n\\z")
                    .arg(QString::fromLatin1(sha1(stream(1, 1, 3))),
                         QString::fromLatin1(sha1(stream(2, 1, 3)))));
    QVERIFY2(expected.match(QString::fromLatin1(simulator.output)).hasMatch(),
             simulator.output.constData());
}

void tst_DeviceSimReport::reportsSummaryOnly()
{
    Receiver receiver;
    QVERIFY(receiver.listen(testAddress()));
    Simulator simulator;
    simulator.start(receiver, words("--connections 2 --quiet"));
    QVERIFY(simulator.waitForEnd());
    QCOMPARE(simulator.document().keys(), QStringList(text("summary")));
    QCOMPARE(number(simulator.summary(), "opened"), 2);
}

QTEST_GUILESS_MAIN(tst_DeviceSimReport)
#include "tst_devicesimreport.moc"
