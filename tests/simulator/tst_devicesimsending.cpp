// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "simulatorreceivers.h"
#include "tests/kit/hangguard.h"
#include "tests/kit/testaddress.h"
#include "tests/simulator/simulatortest.h"

#include <QtCore/QJsonObject>
#include <QtTest/QTest>

#include <csignal>

using namespace simulator;
using namespace simulatortest;

// The program devicesim: what receivers get from it.
class tst_DeviceSimSending : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void sends_data();
    void sends();
    void sendsAllOfManyDevices();
    void closes();
    void halfCloses();
    void halfCloseGoesUnanswered();
    void aborts();
    void stays_data();
    void stays();
    void staysUntilThePeerCloses();
    void reconnects();
    void bindsInTurn();
    void ipv6();

    void keepsItsRate();
    void keepsItsPauses();
    void keepsItsConnectRate();
    void limitsOpenConnections();
};

void tst_DeviceSimSending::sends_data()
{
    QTest::addColumn<QByteArray>("commandLine");
    QTest::newRow("lines") << QByteArray("--framing lines");
    QTest::newRow("length") << QByteArray("--framing length");
    QTest::newRow("byte by byte") << QByteArray("--segments byte");
    QTest::newRow("random cuts") << QByteArray("--segments random --seed 3");
    QTest::newRow("random cuts and pauses")
            << QByteArray("--segments random --pause-ms 0-2 --framing length");
    QTest::newRow("large messages") << QByteArray("--size 100000");
    QTest::newRow("no padding") << QByteArray("--size 0");
    QTest::newRow("rate and random cuts") << QByteArray("--segments random --rate 500");
}

void tst_DeviceSimSending::sends()
{
    QFETCH(const QByteArray, commandLine);
    const QStringList arguments = words("--messages 50") + words(commandLine.constData());
    const Options options = parseOptions(QStringList(QString()) + arguments).options;
    const QByteArray expected = stream(1, 1, 50, options);

    Receiver receiver;
    QVERIFY(receiver.listen(testAddress()));
    Simulator simulator;
    simulator.start(receiver, arguments);
    QVERIFY(simulator.waitForEnd());

    QCOMPARE(simulator.exitCode(), 0);
    QTRY_COMPARE_WITH_TIMEOUT(receiver.peers.size(), 1, HangGuardMs);
    QTRY_COMPARE_WITH_TIMEOUT(receiver.peers.first()->ended, Peer::Fin, HangGuardMs);
    QCOMPARE(receiver.peers.first()->bytes, expected);
    const QJsonObject connection = simulator.connection();
    QCOMPARE(simulator.connections().size(), 1);
    QCOMPARE(number(connection, "device"), 1);
    QCOMPARE(number(connection, "connection"), 1);
    QCOMPARE(number(connection, "messages"), 50);
    QCOMPARE(number(connection, "bytes"), expected.size());
    QCOMPARE(number(connection, "localPort"), receiver.peers.first()->port);
    QCOMPARE(connection.value(text("localAddress")).toString(),
             receiver.peers.first()->address.toString());
    QCOMPARE(connection.value(text("sha1")).toString().toLatin1(), sha1(expected));
    QCOMPARE(end(connection), text("closed"));
    QCOMPARE(number(simulator.summary(), "opened"), 1);
    QCOMPARE(number(simulator.summary(), "failed"), 0);
    QCOMPARE(number(simulator.summary(), "messages"), 50);
    QCOMPARE(number(simulator.summary(), "bytes"), expected.size());
    QCOMPARE(simulator.summary().value(text("interrupted")).toBool(true), false);
}

void tst_DeviceSimSending::sendsAllOfManyDevices()
{
    constexpr int Devices = 200;
    Receiver receiver;
    QVERIFY(receiver.listen(testAddress()));
    Simulator simulator;
    simulator.start(receiver, words("--connections 200 --messages 20 --segments random"));
    QVERIFY(simulator.waitForEnd());

    QCOMPARE(simulator.exitCode(), 0);
    QTRY_COMPARE_WITH_TIMEOUT(receiver.peers.size(), Devices, HangGuardMs);
    QTRY_COMPARE_WITH_TIMEOUT(receiver.openPeers(), 0, HangGuardMs);
    QList<QByteArray> received;
    for (const Peer *peer : receiver.peers)
        received.append(peer->bytes);
    for (quint64 device = 1; device <= Devices; ++device)
        QCOMPARE(received.count(stream(device, 1, 20)), 1);
    QCOMPARE(number(simulator.summary(), "messages"), 20 * Devices);
}

void tst_DeviceSimSending::closes()
{
    Receiver receiver;
    receiver.answersEnd = false;
    QVERIFY(receiver.listen(testAddress()));
    Simulator simulator;
    simulator.start(receiver, words("--messages 10 --close close"));
    QVERIFY(simulator.waitForEnd()); // it waits for no answer
    QCOMPARE(simulator.exitCode(), 0);
    QTRY_COMPARE_WITH_TIMEOUT(receiver.peers.size(), 1, HangGuardMs);
    QTRY_COMPARE_WITH_TIMEOUT(receiver.peers.first()->ended, Peer::Fin, HangGuardMs);
    QCOMPARE(receiver.peers.first()->bytes, stream(1, 1, 10));
    QCOMPARE(end(simulator.connection()), text("closed"));
}

void tst_DeviceSimSending::halfCloses()
{
    Receiver receiver;
    receiver.answersEnd = false;
    QVERIFY(receiver.listen(testAddress()));
    Simulator simulator;
    simulator.start(receiver, words("--messages 10 --close half-close"));
    QTRY_COMPARE_WITH_TIMEOUT(receiver.peers.size(), 1, HangGuardMs);
    Peer *peer = receiver.peers.first();
    QTRY_COMPARE_WITH_TIMEOUT(peer->ended, Peer::Fin, HangGuardMs);
    QCOMPARE(peer->bytes, stream(1, 1, 10));

    peer->close();
    QVERIFY(simulator.waitForEnd());
    QCOMPARE(simulator.exitCode(), 0);
    QCOMPARE(end(simulator.connection()), text("closed"));
}

void tst_DeviceSimSending::halfCloseGoesUnanswered()
{
    Receiver receiver;
    receiver.answersEnd = false;
    QVERIFY(receiver.listen(testAddress()));
    Simulator simulator;
    simulator.start(receiver, words("--close half-close --linger-ms 200"));
    QVERIFY(simulator.waitForEnd());
    QCOMPARE(simulator.exitCode(), 0);
    QCOMPARE(end(simulator.connection()), text("unanswered"));
    QVERIFY(number(simulator.summary(), "elapsedMs") >= 190); // a coarse timer may be 5 % early
}

void tst_DeviceSimSending::aborts()
{
    Receiver receiver;
    QVERIFY(receiver.listen(testAddress()));
    Simulator simulator;
    simulator.start(receiver, words("--messages 1000 --close abort"));
    QVERIFY(simulator.waitForEnd());
    QCOMPARE(simulator.exitCode(), 0);
    QTRY_COMPARE_WITH_TIMEOUT(receiver.peers.size(), 1, HangGuardMs);
    QTRY_COMPARE_WITH_TIMEOUT(receiver.peers.first()->ended, Peer::Reset, HangGuardMs);
    QCOMPARE(receiver.peers.first()->bytes, stream(1, 1, 1000));
    QCOMPARE(end(simulator.connection()), text("reset"));
}

void tst_DeviceSimSending::stays_data()
{
    QTest::addColumn<QByteArray>("linger");
    QTest::addColumn<bool>("interrupted");
    QTest::newRow("for a while") << QByteArray("--linger-ms 200") << false;
    QTest::newRow("until SIGTERM") << QByteArray() << true;
    QTest::newRow("SIGTERM while sending") << QByteArray("--messages 0 --rate 1") << true;
}

void tst_DeviceSimSending::stays()
{
    QFETCH(const QByteArray, linger);
    QFETCH(const bool, interrupted);
    Receiver receiver;
    QVERIFY(receiver.listen(testAddress()));
    Simulator simulator;
    simulator.start(receiver, words("--messages 10 --close stay") + words(linger.constData()));
    QTRY_COMPARE_WITH_TIMEOUT(receiver.peers.size(), 1, HangGuardMs);
    QTRY_VERIFY_WITH_TIMEOUT(receiver.peers.first()->bytes.startsWith(stream(1, 1, 1)),
                             HangGuardMs);
    if (interrupted) {
        QCOMPARE(receiver.peers.first()->ended, Peer::Open);
        simulator.signal(SIGTERM);
    }
    QVERIFY(simulator.waitForEnd());
    QCOMPARE(simulator.exitCode(), 0);
    QTRY_COMPARE_WITH_TIMEOUT(receiver.peers.first()->ended, Peer::Fin, HangGuardMs);
    QCOMPARE(receiver.peers.first()->bytes.size(), number(simulator.connection(), "bytes"));
    QCOMPARE(end(simulator.connection()), text("closed"));
    QCOMPARE(simulator.summary().value(text("interrupted")).toBool(), interrupted);
    if (!interrupted)
        QVERIFY(number(simulator.summary(), "elapsedMs") >= 190);
}

void tst_DeviceSimSending::staysUntilThePeerCloses()
{
    Receiver receiver;
    QVERIFY(receiver.listen(testAddress()));
    Simulator simulator;
    simulator.start(receiver, words("--messages 10 --close stay"));
    QTRY_COMPARE_WITH_TIMEOUT(receiver.peers.size(), 1, HangGuardMs);
    QTRY_COMPARE_WITH_TIMEOUT(receiver.peers.first()->bytes, stream(1, 1, 10), HangGuardMs);
    receiver.peers.first()->close();
    QVERIFY(simulator.waitForEnd());
    QCOMPARE(simulator.exitCode(), 0);
    QCOMPARE(end(simulator.connection()), text("peer-closed"));
}

void tst_DeviceSimSending::reconnects()
{
    Receiver receiver;
    QVERIFY(receiver.listen(testAddress()));
    Simulator simulator;
    // With half-close, the receiver has seen the end of a connection before the next one begins.
    simulator.start(receiver, words("--messages 8 --reconnect 2 --close half-close"));
    QVERIFY(simulator.waitForEnd());
    QCOMPARE(simulator.exitCode(), 0);
    QTRY_COMPARE_WITH_TIMEOUT(receiver.peers.size(), 3, HangGuardMs);
    QTRY_COMPARE_WITH_TIMEOUT(receiver.openPeers(), 0, HangGuardMs);
    QCOMPARE(receiver.mostOpen, 1);
    QCOMPARE(receiver.peers.at(0)->bytes, stream(1, 1, 3));
    QCOMPARE(receiver.peers.at(1)->bytes, stream(1, 4, 6));
    QCOMPARE(receiver.peers.at(2)->bytes, stream(1, 7, 8));
    for (int i = 0; i < 3; ++i) {
        QCOMPARE(number(simulator.connection(i), "connection"), i + 1);
        QCOMPARE(number(simulator.connection(i), "localPort"), receiver.peers.at(i)->port);
    }
    QCOMPARE(number(simulator.summary(), "opened"), 3);
    QCOMPARE(number(simulator.summary(), "messages"), 8);
}

void tst_DeviceSimSending::bindsInTurn()
{
    Receiver receiver;
    QVERIFY(receiver.listen(testAddress()));
    const quint32 own = testAddress().toIPv4Address();
    const QString first = QHostAddress(own ^ (1U << 22U)).toString(); // not the receiver's address
    Simulator simulator;
    simulator.start(
            receiver,
            words("--connections 4")
                    + QStringList{text("--bind"), first, text("--bind"), testAddress().toString()});
    QVERIFY(simulator.waitForEnd());
    QCOMPARE(simulator.exitCode(), 0);
    QTRY_COMPARE_WITH_TIMEOUT(receiver.peers.size(), 4, HangGuardMs);
    QTRY_COMPARE_WITH_TIMEOUT(receiver.openPeers(), 0, HangGuardMs);
    for (const Peer *peer : receiver.peers) {
        const bool isOdd = peer->bytes == stream(1, 1, 1) || peer->bytes == stream(3, 1, 1);
        QCOMPARE(peer->address.toString(), isOdd ? first : testAddress().toString());
    }
}

void tst_DeviceSimSending::ipv6()
{
    Receiver receiver;
    if (!receiver.listen(QHostAddress::LocalHostIPv6))
        QSKIP("no IPv6 here", ); // the comma: pedantic compilers require a second argument
    Simulator simulator;
    simulator.start(receiver, words("--messages 3"));
    QVERIFY(simulator.waitForEnd());
    QCOMPARE(simulator.exitCode(), 0);
    QTRY_COMPARE_WITH_TIMEOUT(receiver.peers.size(), 1, HangGuardMs);
    QTRY_COMPARE_WITH_TIMEOUT(receiver.peers.first()->bytes, stream(1, 1, 3), HangGuardMs);
    QCOMPARE(simulator.connection().value(text("localAddress")).toString(), text("::1"));
    QCOMPARE(number(simulator.connection(), "localPort"), receiver.peers.first()->port);
}

void tst_DeviceSimSending::keepsItsRate()
{
    Receiver receiver;
    QVERIFY(receiver.listen(testAddress()));
    Simulator simulator;
    simulator.start(receiver, words("--messages 11 --rate 50 --reconnect 1"));
    QVERIFY(simulator.waitForEnd());
    QCOMPARE(simulator.exitCode(), 0);
    QVERIFY(number(simulator.summary(), "elapsedMs") >= 200);
}

void tst_DeviceSimSending::keepsItsPauses()
{
    Receiver receiver;
    QVERIFY(receiver.listen(testAddress()));
    Simulator simulator;
    simulator.start(receiver, words("--messages 11 --pause-ms 20"));
    QVERIFY(simulator.waitForEnd());
    QCOMPARE(simulator.exitCode(), 0);
    QVERIFY(number(simulator.summary(), "elapsedMs") >= 180); // 10 pauses by coarse timers
}

void tst_DeviceSimSending::keepsItsConnectRate()
{
    Receiver receiver;
    QVERIFY(receiver.listen(testAddress()));
    Simulator simulator;
    simulator.start(receiver, words("--connections 11 --connect-rate 50"));
    QVERIFY(simulator.waitForEnd());
    QCOMPARE(simulator.exitCode(), 0);
    QCOMPARE(number(simulator.summary(), "opened"), 11);
    QVERIFY(number(simulator.summary(), "elapsedMs") >= 200);
}

void tst_DeviceSimSending::limitsOpenConnections()
{
    // With half-close, a connection is open until the receiver closes it. So the receiver can count
    // the open ones.
    Receiver receiver;
    QVERIFY(receiver.listen(testAddress()));
    Simulator simulator;
    simulator.start(receiver, words("--connections 60 --parallel 3 --close half-close"));
    QVERIFY(simulator.waitForEnd());
    QCOMPARE(simulator.exitCode(), 0);
    QCOMPARE(number(simulator.summary(), "opened"), 60);
    QCOMPARE(receiver.peers.size(), 60);
    QVERIFY(receiver.mostOpen <= 3);
}

QTEST_GUILESS_MAIN(tst_DeviceSimSending)
#include "tst_devicesimsending.moc"
