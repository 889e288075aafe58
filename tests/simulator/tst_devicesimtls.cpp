// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "simulatorreceivers.h"
#include "tests/kit/hangguard.h"
#include "tests/kit/testaddress.h"
#include "tests/simulator/simulatortest.h"

#include <QtTest/QTest>

#include <memory>
#include <openssl/x509_vfy.h>
#include <vector>

using namespace simulator;
using namespace simulatortest;

// The simulator over TLS.
class tst_DeviceSimTls : public SimulatorTest
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase() { prepare(); }

    void tls_data();
    void tls();
    void tlsDeliversThenCloses();
    void tlsReconnects();
    void tlsRefusals_data();
    void tlsRefusals();
    void tlsServerRefusesDevice_data();
    void tlsServerRefusesDevice();
    void tlsQtServerRefusesDevice();
    void tlsClientCertificate();
    void tlsUnusableFiles();
    void tlsHandshakeTimesOut();
    void tlsResumes_data();
    void tlsResumes();
    void tlsRecordSize();
    void tlsLimitsOpening();
    void tlsLimitsOpeningAlsoAfterFailures();
};

void tst_DeviceSimTls::tls_data()
{
    QTest::addColumn<QByteArray>("commandLine");
    QTest::addColumn<QSsl::SslProtocol>("protocol");
    QTest::newRow("1.2") << QByteArray("--tls-version 1.2") << QSsl::TlsV1_2;
    QTest::newRow("1.3") << QByteArray("--tls-version 1.3") << QSsl::TlsV1_3;
    QTest::newRow("latest") << QByteArray() << QSsl::TlsV1_3;
    QTest::newRow("by name") << QByteArray("--server-name receiver.example") << QSsl::TlsV1_3;
    QTest::newRow("random cuts") << QByteArray("--segments random") << QSsl::TlsV1_3;
    QTest::newRow("half-close") << QByteArray("--close half-close") << QSsl::TlsV1_3;
}

void tst_DeviceSimTls::tls()
{
    QFETCH(const QByteArray, commandLine);
    QFETCH(const QSsl::SslProtocol, protocol);
    TlsReceiver receiver(serverConfiguration());
    QVERIFY(receiver.listen(testAddress()));
    Simulator simulator;
    simulator.start(receiver,
                    words("--tls --messages 50 --connections 3") + words(commandLine.constData())
                            + QStringList{text("--ca"), file("ca.pem")});
    QVERIFY(simulator.waitForEnd());
    QCOMPARE(simulator.exitCode(), 0);
    QCOMPARE(receiver.sockets.size(), 3);
    QCOMPARE(receiver.encrypted, 3);
    QTRY_COMPARE_WITH_TIMEOUT(receiver.disconnected, 3, HangGuardMs);
    for (qsizetype i = 0; i < 3; ++i) {
        const QByteArray received = receiver.bytes.value(receiver.sockets.at(i));
        const quint64 device = received.mid(1, 1).toULongLong();
        QCOMPARE(received, stream(device, 1, 50));
        QVERIFY(receiver.protocols.at(i) == protocol);
    }
    for (int i = 0; i < 3; ++i) {
        const QByteArray sent = stream(static_cast<quint64>(i) + 1, 1, 50);
        QCOMPARE(number(simulator.connection(i), "bytes"), sent.size());
        QCOMPARE(simulator.connection(i).value(text("sha1")).toString().toLatin1(), sha1(sent));
        QCOMPARE(end(simulator.connection(i)), text("closed"));
    }
}

// Unread session tickets must not make the device's kernel drop bytes that are not sent yet.
void tst_DeviceSimTls::tlsDeliversThenCloses()
{
    TlsReceiver receiver(serverConfiguration());
    QVERIFY(receiver.listen(testAddress()));
    Simulator simulator;
    simulator.start(receiver,
                    words("--tls --insecure --tls-version 1.3 --messages 20000 --size 200"));
    QVERIFY(simulator.waitForEnd());
    QCOMPARE(simulator.exitCode(), 0);
    QTRY_COMPARE_WITH_TIMEOUT(receiver.disconnected, 1, HangGuardMs);
    Options options;
    options.size = 200;
    QVERIFY(receiver.bytes.value(receiver.sockets.first()) == stream(1, 1, 20000, options));
}

void tst_DeviceSimTls::tlsReconnects()
{
    TlsReceiver receiver(serverConfiguration());
    QVERIFY(receiver.listen(testAddress()));
    Simulator simulator;
    simulator.start(receiver, words("--tls --insecure --messages 4 --reconnect 1"));
    QVERIFY(simulator.waitForEnd());
    QCOMPARE(simulator.exitCode(), 0);
    QCOMPARE(receiver.sockets.size(), 2);
    QTRY_COMPARE_WITH_TIMEOUT(receiver.disconnected, 2, HangGuardMs);
    QCOMPARE(receiver.bytes.value(receiver.sockets.at(0)), stream(1, 1, 2));
    QCOMPARE(receiver.bytes.value(receiver.sockets.at(1)), stream(1, 3, 4));
}

void tst_DeviceSimTls::tlsRefusals_data()
{
    QTest::addColumn<QStringList>("arguments");
    QTest::addColumn<QString>("error");
    const QString distrust = text("the server's certificate is not trusted: ");
    QTest::newRow("other authority") << QStringList{text("--ca"), file("stranger.pem")} << distrust;
    QTest::newRow("system's authorities") << QStringList() << distrust;
    const char *const mismatch = X509_verify_cert_error_string(X509_V_ERR_HOSTNAME_MISMATCH);
    QTest::newRow("other name") << QStringList{text("--ca"), file("ca.pem"), text("--server-name"),
                                               text("other.example")}
                                << distrust + text(mismatch);
}

void tst_DeviceSimTls::tlsRefusals()
{
    QFETCH(const QStringList, arguments);
    QFETCH(const QString, error);
    TlsReceiver receiver(serverConfiguration());
    QVERIFY(receiver.listen(testAddress()));
    Simulator simulator;
    simulator.start(receiver, words("--tls") + arguments);
    QVERIFY(simulator.waitForEnd());
    QCOMPARE(simulator.exitCode(), 1);
    QCOMPARE(end(simulator.connection()), text("failed"));
    QCOMPARE(number(simulator.summary(), "opened"), 0);
    const QString reported = simulator.connection().value(text("error")).toString();
    QVERIFY2(reported.startsWith(error), qPrintable(reported));
    QCOMPARE(receiver.encrypted, 0);
}

void tst_DeviceSimTls::tlsServerRefusesDevice_data()
{
    QTest::addColumn<QString>("version");
    QTest::newRow("TLS 1.2") << text("1.2");
    QTest::newRow("TLS 1.3, after the device's handshake") << text("1.3");
}

void tst_DeviceSimTls::tlsServerRefusesDevice()
{
    QFETCH(const QString, version);
    QTcpServer listener;
    QVERIFY(listener.listen(testAddress()));
    Simulator simulator;
    simulator.start(listener, words("--tls --insecure --tls-version") + QStringList(version));
    QVERIFY(listener.waitForNewConnection(HangGuardMs));
    const std::unique_ptr<QTcpSocket> accepted(listener.nextPendingConnection());
    TlsPeer peer(accepted->socketDescriptor(), file("server.pem"), file("server.key"));
    peer.requireCertificate();
    QVERIFY(!peer.handshake());
    accepted->abort();

    QVERIFY(simulator.waitForEnd());
    QCOMPARE(simulator.exitCode(), 1);
    QCOMPARE(end(simulator.connection()), text("failed"));
    QVERIFY(!simulator.connection().value(text("error")).toString().isEmpty());
}

// Qt refuses a device by closing the connection. Only a device that still sends can notice that.
void tst_DeviceSimTls::tlsQtServerRefusesDevice()
{
    QSslConfiguration configuration = serverConfiguration();
    configuration.setPeerVerifyMode(QSslSocket::VerifyPeer);
    TlsReceiver receiver(configuration);
    QVERIFY(receiver.listen(testAddress()));
    Simulator simulator;
    simulator.start(receiver, words("--tls --insecure --messages 0 --rate 100"));
    QVERIFY(simulator.waitForEnd());
    QCOMPARE(simulator.exitCode(), 1);
    QCOMPARE(end(simulator.connection()), text("failed"));
    QCOMPARE(receiver.encrypted, 0);
}

void tst_DeviceSimTls::tlsClientCertificate()
{
    QSslConfiguration configuration = serverConfiguration();
    configuration.setPeerVerifyMode(QSslSocket::VerifyPeer);
    TlsReceiver receiver(configuration);
    QVERIFY(receiver.listen(testAddress()));
    Simulator simulator;
    simulator.start(receiver,
                    words("--tls --messages 3")
                            + QStringList{text("--ca"), file("ca.pem"), text("--cert"),
                                          file("device.pem"), text("--key"), file("device.key")});
    QVERIFY(simulator.waitForEnd());
    QCOMPARE(simulator.exitCode(), 0);
    QCOMPARE(receiver.peerNames, QStringList(text("device")));
    QTRY_COMPARE_WITH_TIMEOUT(receiver.disconnected, 1, HangGuardMs);
    QCOMPARE(receiver.bytes.value(receiver.sockets.first()), stream(1, 1, 3));
}

void tst_DeviceSimTls::tlsUnusableFiles()
{
    const DeafPort port;
    const QList<QStringList> commandLines{
            {text("--ca"), file("none.pem")},
            {text("--cert"), file("none.pem"), text("--key"), file("device.key")},
            {text("--cert"), file("device.pem"), text("--key"), file("none.key")},
            {text("--cert"), file("device.pem"), text("--key"), file("server.key")}, // another key
    };
    for (const QStringList &arguments : commandLines) {
        Simulator simulator;
        simulator.start(port.arguments() + words("--tls") + arguments);
        QVERIFY(simulator.waitForEnd());
        QCOMPARE(simulator.exitCode(), 2);
        QCOMPARE(simulator.output, QByteArray());
        QVERIFY(simulator.errors().startsWith("devicesim: " + certificates.path().toLocal8Bit()));
    }
}

void tst_DeviceSimTls::tlsHandshakeTimesOut()
{
    Receiver receiver; // never answers the ClientHello
    QVERIFY(receiver.listen(testAddress()));
    Simulator simulator;
    simulator.start(receiver, words("--tls --connect-timeout-ms 200"));
    QVERIFY(simulator.waitForEnd());
    QCOMPARE(simulator.exitCode(), 1);
    QCOMPARE(simulator.connection().value(text("error")).toString(),
             text("not connected within 200 ms"));
    QVERIFY(number(simulator.summary(), "elapsedMs") >= 190);
}

void tst_DeviceSimTls::tlsResumes_data()
{
    QTest::addColumn<QByteArray>("commandLine");
    QTest::addColumn<QList<bool>>("resumed");
    const QList<bool> allButFirst{false, true, true, true};
    QTest::newRow("TLS 1.2") << QByteArray("--resume --tls-version 1.2 --connections 4")
                             << allButFirst;
    QTest::newRow("TLS 1.3") << QByteArray("--resume --tls-version 1.3 --connections 4")
                             << allButFirst;
    QTest::newRow("TLS 1.3, in turn")
            << QByteArray("--resume --tls-version 1.3 --connections 4 --parallel 1") << allButFirst;
    QTest::newRow("a device that reconnects")
            << QByteArray("--resume --messages 4 --reconnect 3") << allButFirst;
    QTest::newRow("not asked for")
            << QByteArray("--connections 2 --parallel 1") << QList<bool>{false, false};
}

void tst_DeviceSimTls::tlsResumes()
{
    QFETCH(const QByteArray, commandLine);
    QFETCH(const QList<bool>, resumed);
    const auto context = TlsPeer::newContext(file("server.pem"), file("server.key"));
    QTcpServer listener;
    QVERIFY(listener.listen(testAddress()));
    Simulator simulator;
    simulator.start(listener, words("--tls --insecure") + words(commandLine.constData()));
    for (const bool expected : resumed) {
        QVERIFY(listener.hasPendingConnections() || listener.waitForNewConnection(HangGuardMs));
        const std::unique_ptr<QTcpSocket> accepted(listener.nextPendingConnection());
        TlsPeer peer(accepted->socketDescriptor(), context);
        QVERIFY(peer.handshake());
        QCOMPARE(peer.isResumed(), expected);
        QVERIFY(!peer.readToEnd().isEmpty());
        peer.endTls();
    }
    QVERIFY(simulator.waitForEnd());
    QCOMPARE(simulator.exitCode(), 0);
    const auto count = static_cast<int>(resumed.count(true));
    QCOMPARE(number(simulator.summary(), "resumed"), count);
    int reported = 0;
    for (int i = 0; i < simulator.connections().size(); ++i)
        reported += simulator.connection(i).value(text("resumed")).toBool() ? 1 : 0;
    QCOMPARE(reported, count);
}

void tst_DeviceSimTls::tlsRecordSize()
{
    QTcpServer listener;
    QVERIFY(listener.listen(testAddress()));
    Simulator simulator;
    simulator.start(listener,
                    words("--tls --insecure --record-size 1000 --segments blocks --size 5000 "
                          "--messages 20"));
    QVERIFY(listener.waitForNewConnection(HangGuardMs));
    const std::unique_ptr<QTcpSocket> accepted(listener.nextPendingConnection());
    TlsPeer peer(accepted->socketDescriptor(), file("server.pem"), file("server.key"));
    QVERIFY(peer.handshake());
    Options options;
    options.size = 5000;
    QCOMPARE(peer.readToEnd(), stream(1, 1, 20, options));
    QCOMPARE(peer.longestRead(), 1000);
    accepted->abort();
    QVERIFY(simulator.waitForEnd());
    QCOMPARE(simulator.exitCode(), 0);
}

// A device waits for the handshake of the one before, and not for its end.
void tst_DeviceSimTls::tlsLimitsOpening()
{
    const auto context = TlsPeer::newContext(file("server.pem"), file("server.key"));
    QTcpServer listener;
    QVERIFY(listener.listen(testAddress()));
    Simulator simulator;
    simulator.start(listener, words("--tls --insecure --connections 3 --opening 1 --close stay"));
    std::vector<std::unique_ptr<QTcpSocket>> sockets;
    std::vector<std::unique_ptr<TlsPeer>> peers;
    for (int i = 0; i < 3; ++i) {
        QVERIFY(listener.hasPendingConnections() || listener.waitForNewConnection(HangGuardMs));
        sockets.emplace_back(listener.nextPendingConnection());
        peers.push_back(std::make_unique<TlsPeer>(sockets.back()->socketDescriptor(), context));
        QVERIFY(peers.back()->handshake());
    }
    simulator.signal(SIGINT);
    for (std::size_t i = 0; i < 3; ++i) {
        QVERIFY(!peers.at(i)->readToEnd().isEmpty());
        sockets.at(i)->abort();
    }
    QVERIFY(simulator.waitForEnd());
    QCOMPARE(simulator.exitCode(), 0);
    QCOMPARE(number(simulator.summary(), "opened"), 3);
    for (int i = 1; i < 3; ++i)
        QVERIFY(number(simulator.connection(i), "startMs")
                >= number(simulator.connection(i - 1), "openMs"));
}

void tst_DeviceSimTls::tlsLimitsOpeningAlsoAfterFailures()
{
    QTcpServer listener;
    QVERIFY(listener.listen(testAddress()));
    Simulator simulator;
    simulator.start(listener, words("--tls --insecure --connections 3 --opening 1"));
    for (int i = 0; i < 3; ++i) {
        QVERIFY(listener.hasPendingConnections() || listener.waitForNewConnection(HangGuardMs));
        const std::unique_ptr<QTcpSocket> accepted(listener.nextPendingConnection());
        accepted->abort();
    }
    QVERIFY(simulator.waitForEnd());
    QCOMPARE(number(simulator.summary(), "failed"), 3);
}

QTEST_GUILESS_MAIN(tst_DeviceSimTls)
#include "tst_devicesimtls.moc"
