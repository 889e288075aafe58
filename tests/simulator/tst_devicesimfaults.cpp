// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "simulatorreceivers.h"
#include "tests/kit/hangguard.h"
#include "tests/kit/testaddress.h"
#include "tests/simulator/simulatortest.h"

#include <QtTest/QTest>

using namespace simulator;
using namespace simulatortest;

// Devices that break the rules on purpose.
class tst_DeviceSimFaults : public SimulatorTest
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase() { prepare(); }

    void silent_data();
    void silent();
    void garbage();
    void abortsHandshake();
    void endsTlsOnly();
    void endsTlsOnlyWhateverThePeerAnswers();
    void closesWithoutReading_data();
    void closesWithoutReading();
};

void tst_DeviceSimFaults::silent_data()
{
    QTest::addColumn<QByteArray>("commandLine");
    QTest::addColumn<bool>("peerCloses");
    QTest::newRow("until the peer closes") << QByteArray("--tls") << true;
    QTest::newRow("for a while") << QByteArray("--tls --linger-ms 100") << false;
    QTest::newRow("plain") << QByteArray("--linger-ms 100") << false;
}

void tst_DeviceSimFaults::silent()
{
    QFETCH(const QByteArray, commandLine);
    QFETCH(const bool, peerCloses);
    Receiver receiver;
    QVERIFY(receiver.listen(testAddress()));
    Simulator simulator;
    simulator.start(receiver, words("--fault silent") + words(commandLine.constData()));
    QTRY_COMPARE_WITH_TIMEOUT(receiver.peers.size(), 1, HangGuardMs);
    if (peerCloses)
        receiver.peers.first()->close();
    QVERIFY(simulator.waitForEnd());
    QCOMPARE(simulator.exitCode(), 0);
    QTRY_VERIFY_WITH_TIMEOUT(receiver.peers.first()->ended != Peer::Open, HangGuardMs);
    QCOMPARE(receiver.peers.first()->bytes, QByteArray());
    QCOMPARE(end(simulator.connection()), peerCloses ? text("peer-closed") : text("closed"));
    QCOMPARE(number(simulator.summary(), "opened"), 1);
    QCOMPARE(number(simulator.summary(), "messages"), 0);
}

void tst_DeviceSimFaults::garbage()
{
    const QStringList arguments = words("--tls --fault garbage --messages 3 --size 100 --seed 9");
    Receiver receiver;
    QVERIFY(receiver.listen(testAddress()));
    Simulator simulator;
    simulator.start(receiver, arguments);
    QVERIFY(simulator.waitForEnd());
    QCOMPARE(simulator.exitCode(), 0);
    QTRY_COMPARE_WITH_TIMEOUT(receiver.peers.size(), 1, HangGuardMs);
    QTRY_COMPARE_WITH_TIMEOUT(receiver.peers.first()->ended, Peer::Fin, HangGuardMs);
    const Options options = parseOptions(QStringList(QString()) + arguments).options;
    QCOMPARE(receiver.peers.first()->bytes, stream(1, 1, 3, options));
}

void tst_DeviceSimFaults::abortsHandshake()
{
    Receiver receiver;
    QVERIFY(receiver.listen(testAddress()));
    Simulator simulator;
    simulator.start(receiver, words("--tls --fault abort-handshake"));
    QVERIFY(simulator.waitForEnd());
    QCOMPARE(simulator.exitCode(), 0);
    QCOMPARE(end(simulator.connection()), text("reset"));
    QTRY_COMPARE_WITH_TIMEOUT(receiver.peers.size(), 1, HangGuardMs);
    const Peer *peer = receiver.peers.first();
    QTRY_COMPARE_WITH_TIMEOUT(peer->ended, Peer::Reset, HangGuardMs);
    QVERIFY(peer->bytes.size() > 9);
    QCOMPARE(peer->bytes.left(2).toHex(), QByteArray("1603")); // a handshake record
    QCOMPARE(peer->bytes.at(5), '\x01'); // with a ClientHello
    QCOMPARE(number(simulator.connection(), "bytes"), 0);
}

void tst_DeviceSimFaults::endsTlsOnly()
{
    TlsReceiver receiver(serverConfiguration());
    QVERIFY(receiver.listen(testAddress()));
    Simulator simulator;
    simulator.start(receiver, words("--tls --insecure --messages 5 --fault close-notify-only"));
    QTRY_COMPARE_WITH_TIMEOUT(receiver.closeNotified, 1, HangGuardMs);
    QSslSocket *socket = receiver.sockets.first();
    QCOMPARE(receiver.bytes.value(socket), stream(1, 1, 5));
    QCOMPARE(receiver.disconnected, 0);
    QVERIFY(!peerHasClosed(socket->socketDescriptor()));

    socket->abort();
    QVERIFY(simulator.waitForEnd());
    QCOMPARE(simulator.exitCode(), 0);
    QCOMPARE(end(simulator.connection()), text("peer-closed"));
}

void tst_DeviceSimFaults::endsTlsOnlyWhateverThePeerAnswers()
{
    QTcpServer listener;
    QVERIFY(listener.listen(testAddress()));
    Simulator simulator;
    simulator.start(listener, words("--tls --insecure --fault close-notify-only --linger-ms 200"));
    QVERIFY(listener.waitForNewConnection(HangGuardMs));
    const std::unique_ptr<QTcpSocket> accepted(listener.nextPendingConnection());
    TlsPeer peer(accepted->socketDescriptor(), file("server.pem"), file("server.key"));
    QVERIFY(peer.handshake());
    QCOMPARE(peer.readToEnd(), stream(1, 1, 1));
    peer.endTls();

    QVERIFY(simulator.waitForEnd());
    QCOMPARE(simulator.exitCode(), 0);
    QCOMPARE(end(simulator.connection()), text("closed")); // by the device, after its linger time
    QVERIFY(number(simulator.summary(), "elapsedMs") >= 190);
}

void tst_DeviceSimFaults::closesWithoutReading_data()
{
    QTest::addColumn<QByteArray>("fault");
    QTest::addColumn<bool>("reset");
    QTest::newRow("faulty") << QByteArray("--fault close-without-reading") << true;
    QTest::newRow("as it should be") << QByteArray() << false;
}

void tst_DeviceSimFaults::closesWithoutReading()
{
    QFETCH(const QByteArray, fault);
    QFETCH(const bool, reset);
    QTcpServer listener;
    QVERIFY(listener.listen(testAddress()));
    Simulator simulator;
    simulator.start(listener,
                    words("--tls --insecure --tls-version 1.3 --messages 5 --rate 20")
                            + words(fault.constData()));
    QVERIFY(listener.waitForNewConnection(HangGuardMs));
    const std::unique_ptr<QTcpSocket> accepted(listener.nextPendingConnection());

    // OpenSSL directly: QSslSocket does not distinguish a FIN from an RST.
    TlsPeer peer(accepted->socketDescriptor(), file("server.pem"), file("server.key"));
    QVERIFY(peer.handshake()); // sends session tickets
    QCOMPARE(peer.readToEnd().left(65), stream(1, 1, 1));
    QTRY_COMPARE_WITH_TIMEOUT(peer.wasReset(), reset, HangGuardMs);

    accepted->abort();
    QVERIFY(simulator.waitForEnd());
    QCOMPARE(simulator.exitCode(), 0);
    QCOMPARE(end(simulator.connection()), text("closed"));
    QCOMPARE(number(simulator.connection(), "messages"), 5);
}

QTEST_GUILESS_MAIN(tst_DeviceSimFaults)
#include "tst_devicesimfaults.moc"
