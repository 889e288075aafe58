// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "tcpinput/accept/tcpserver.h"
#include "tests/kit/hangguard.h"
#include "tests/kit/nativesocket.h"
#include "tests/kit/processresources.h"
#include "tests/kit/proxyheaders.h"
#include "tests/kit/testaddress.h"

#include <QtTest/QTest>

#include <memory>
#include <vector>

using namespace Qt::StringLiterals;

/*!
    Connections that wait for their header, in a server without a plugin.
*/
class tst_ProxyGate : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init();
    void cleanup();

    void announcedWhenItCanBeTaken();
    void waitingConnectionsAreBounded();
    void heldUpThreadCostsNoHeader();
    void receiversMayDeleteTheServer_data();
    void receiversMayDeleteTheServer();

private:
    NativeSocket connectDevice(const QByteArray &bytes = {}) const
    {
        NativeSocket device = NativeSocket::connectedTo(testAddress(), server->serverPort());
        return bytes.isEmpty() || device.send(bytes) ? std::move(device) : NativeSocket();
    }

    std::unique_ptr<TcpServer> server;
    int announced = 0;
};

void tst_ProxyGate::init()
{
    server = std::make_unique<TcpServer>(nullptr);
    ProxyRule rule;
    rule.from = {*Network::from(u"127.0.0.0/8"_s)};
    rule.timeoutMs = 1000000;
    server->setProxyRule(rule);
    announced = 0;
    connect(server.get(), &QTcpServer::pendingConnectionAvailable, this, [this] { ++announced; });
    QVERIFY(server->listen(testAddress(), 0));
}

void tst_ProxyGate::cleanup()
{
    server.reset();
}

void tst_ProxyGate::announcedWhenItCanBeTaken()
{
    const NativeSocket device = connectDevice("PROXY TCP4 203.0.113.7");
    QTRY_COMPARE_WITH_TIMEOUT(server->proxies.waiting(), 1, HangGuardMs);
    QVERIFY(!server->hasPendingConnections());
    QVERIFY(!server->take().socket);
    QCOMPARE(announced, 0);
    QVERIFY(device.send(" 192.0.2.1 4711 7446\r\nmessage"));
    QTRY_COMPARE_WITH_TIMEOUT(announced, 1, HangGuardMs);
    QCOMPARE(server->proxies.waiting(), 0);
    const TakenConnection taken = server->take();
    QVERIFY(taken.acceptance.isProxied);
    QCOMPARE(taken.acceptance.endpoints.peer.toString(), u"203.0.113.7"_s);
    QCOMPARE(taken.acceptance.endpoints.peerPort, 4711);
    QCOMPARE(taken.acceptance.endpoints.local, testAddress());
    QCOMPARE(taken.acceptance.endpoints.localPort, server->serverPort());
    QVERIFY(taken.socket->waitForReadyRead(HangGuardMs));
    QCOMPARE(taken.socket->readAll(), QByteArray("message"));
}

// Connections that wait for their header count as connections that wait to be taken.
void tst_ProxyGate::waitingConnectionsAreBounded()
{
    constexpr int Most = 4096;
    constexpr int Least = 2048;
    constexpr int Later = 10;
    constexpr int Together = 256; // a divisor of Most
    if (!raiseDescriptorLimit(2 * (Most + 100)))
        QSKIP("the limit of open files is lower");
    std::vector<NativeSocket> devices;
    while (devices.size() < Most) {
        for (int n = 0; n < Together; ++n)
            devices.push_back(connectDevice("P"));
        QTRY_COMPARE_WITH_TIMEOUT(server->proxies.waiting(), qsizetype(devices.size()),
                                  HangGuardMs);
    }
    for (int n = 0; n < Later; ++n)
        devices.push_back(connectDevice("P"));
    // After the fence, the last device has connected and the guard's timer has fired a few times.
    int ticks = 0;
    QTimer fence;
    connect(&fence, &QTimer::timeout, &fence, [&ticks] { ++ticks; });
    fence.start(100);
    QTRY_VERIFY_WITH_TIMEOUT(ticks >= 3, HangGuardMs);
    QCOMPARE(server->proxies.waiting(), Most);

    for (int n = 0; n < Most - Least; ++n)
        devices[std::size_t(n)].close();
    QTRY_COMPARE_WITH_TIMEOUT(server->proxies.waiting(), Least + Later, HangGuardMs);
    const qsizetype before = openSockets();
    server->close();
    QCOMPARE(server->proxies.waiting(), 0);
    // The listening socket is closed, too.
    QCOMPARE(openSockets(), before - Least - Later - 1);
}

// The header came in time, but it is read late.
void tst_ProxyGate::heldUpThreadCostsNoHeader()
{
    ProxyRule rule;
    rule.from = {*Network::from(u"127.0.0.0/8"_s)};
    rule.timeoutMs = 50;
    server->setProxyRule(rule);
    const NativeSocket device = connectDevice();
    QTRY_COMPARE_WITH_TIMEOUT(server->proxies.waiting(), 1, HangGuardMs);
    QVERIFY(device.send("PROXY UNKNOWN\r\n"));
    // Makes the time-out come first: otherwise the event loop decides the order.
    for (QSocketNotifier *notifier : server->proxies.findChildren<QSocketNotifier *>())
        notifier->setEnabled(false);
    QTRY_COMPARE_WITH_TIMEOUT(server->proxies.waiting(), 0, HangGuardMs);
    QCOMPARE(announced, 1);
}

void tst_ProxyGate::receiversMayDeleteTheServer_data()
{
    QTest::addColumn<QString>("signal");
    for (const char *name : {"pendingConnectionAvailable", "closedWithoutHeader", "refusedOthers"})
        QTest::newRow(name) << QString::fromLatin1(name);
}

void tst_ProxyGate::receiversMayDeleteTheServer()
{
    QFETCH(QString, signal);
    const auto end = [this] { server.reset(); };
    connect(server.get(), &QTcpServer::pendingConnectionAvailable, this, end);
    connect(&server->proxies, &ProxyGate::closedWithoutHeader, this, end);
    connect(&server->proxies, &ProxyGate::refusedOthers, this, end);
    if (signal == u"refusedOthers") {
        ProxyRule rule;
        rule.servesOthers = false;
        server->setProxyRule(rule);
    }
    const NativeSocket waiting = connectDevice("P");
    const NativeSocket device = connectDevice(
            signal == u"closedWithoutHeader" ? QByteArray("x") : QByteArray("PROXY UNKNOWN\r\n"));
    QTRY_VERIFY_WITH_TIMEOUT(!server, HangGuardMs);
    QVERIFY(device.ends());
    QVERIFY(waiting.ends());
}

QTEST_GUILESS_MAIN(tst_ProxyGate)
#include "tst_proxygate.moc"
