// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "plugin/acceptpause.h"
#include "plugin/countersevent.h"
#include "tests/endtoend/proxytest.h"

#include <QtCore/QElapsedTimer>
#include <QtCore/QTimer>

#include <deque>

using namespace proxyheaders;
using namespace Qt::StringLiterals;

/*!
    How many connections the plugin takes, and how fast, over TCP and TLS.
*/
class tst_ConnectionLimits : public ProxyTest
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase_data() { addTransports(); }
    void init() { begin(); }
    void cleanup() { end(); }

    void othersWaitForAPlace();
    void noneIsLostAtTheLimit();
    void eachAddressHasItsOwn();
    void refusedOnesAreNotOpen();
    void addressesOfANetworkCountAsOne();
    void behindAProxyTheDeviceCounts();
    void rateMakesThemWait();
    void handshakesMakeOthersWait();
    void handshakesMayTakeMore();
    void anotherStartHasOtherLimits();
    void hostPausesAccepting();

private:
    void startWith(const QJsonObject &limits, QJsonObject more = {})
    {
        more.insert(u"limits"_s, limits);
        start(more);
    }
    // Does not wait for an answer.
    ProxiedDevice &connected(const QHostAddress &from = proxyAddress())
    {
        devices.push_back(newDevice());
        if (!devices.back().connect(port, from))
            qFatal("A device could not connect");
        return devices.back();
    }
    bool isServed(const QHostAddress &from = proxyAddress())
    {
        const qsizetype before = records.size();
        return send(connected(from), "served\n") && waitForRecords(before + 1);
    }
    bool isRefused(const QHostAddress &from = proxyAddress())
    {
        return waitForEnd(connected(from));
    }
    QString status() const
    {
        const QStringList lines = plugin->getStatus().split(u"\r\n"_s, Qt::SkipEmptyParts);
        return lines.last();
    }

    std::deque<ProxiedDevice> devices;
};

void tst_ConnectionLimits::othersWaitForAPlace()
{
    startWith({{u"maxConnections"_s, 2}});
    QVERIFY(isServed());
    QCOMPARE(status(), u"Limits: 1 connections open, 0 refused"_s);
    QVERIFY(isServed());
    QCOMPARE(status(), u"Limits: 2 connections open, 0 refused, accepting paused"_s);
    const QStringList once(u"W: TcpInputPlugin2(t): 2 connections are open, accepting paused"_s);
    QVERIFY(serveUntil([&] { return warnings() == once; }));

    // The kernel accepts these connections. The plugin reads none of their bytes until a place is
    // free.
    QFETCH_GLOBAL(bool, tls);
    for (int i = 0; i < 2; ++i) {
        ProxiedDevice &waiting = connected();
        if (!tls)
            QVERIFY(waiting.send("waited\n"));
    }
    QElapsedTimer elapsed;
    elapsed.start();
    QVERIFY(serveUntil([&] { return elapsed.hasExpired(300); }));
    QCOMPARE(records.size(), 2);
    QCOMPARE(status(), u"Limits: 2 connections open, 0 refused, accepting paused"_s);

    for (qsizetype count = 3; count <= 4; ++count) {
        devices.pop_front();
        if (tls)
            QVERIFY(send(devices[1], "waited\n"));
        QVERIFY(waitForRecords(count));
    }
    QCOMPARE(warnings(), once);
    devices.clear();
}

// Many devices come and go, but few connections are allowed at a time.
void tst_ConnectionLimits::noneIsLostAtTheLimit()
{
    constexpr int Devices = 40;
    startWith({{u"maxConnections"_s, 3}});
    for (int i = 0; i < 3; ++i)
        QVERIFY(isServed());
    int most = 0;
    QTimer sample;
    sample.callOnTimeout(this, [&] { most = qMax(most, status().section(u' ', 1, 1).toInt()); });
    sample.start(0);
    std::atomic<int> served = 0;
    QVERIFY(play([&] { // the kernel accepts even those that the plugin does not
        for (int i = 0; i < Devices; ++i)
            served += newDevice().connect(port) ? 1 : 0;
    }));
    QCOMPARE(served.load(), Devices);
    devices.clear();
    QVERIFY(isServed()); // accepted after all the others
    QVERIFY(serveUntil([&] { return status().contains(u": 1 connections open"_s); }));
    QCOMPARE(most, 3);
    QCOMPARE(warnings().filter(u"accepting paused"_s).size(), 1);
    devices.clear();
}

void tst_ConnectionLimits::eachAddressHasItsOwn()
{
    startWith({{u"maxConnectionsPerAddress"_s, 2},
               {u"exempt"_s, QJsonArray{strangerAddress().toString()}}});
    QVERIFY(isServed());
    QVERIFY(isServed());
    QVERIFY(isRefused());
    const QString first = devices.back().endpoint();
    QVERIFY(isRefused());
    QCOMPARE(warnings(),
             QStringList(u"W: TcpInputPlugin2(t): Too many connections of one address: 1 refused, "
                         "the latest from %1"_s.arg(first)));
    QCOMPARE(status(), u"Limits: 2 connections open, 2 refused"_s);

    QVERIFY(isServed(testAddress()));
    for (int i = 0; i < 3; ++i)
        QVERIFY(isServed(strangerAddress()));

    devices.pop_front(); // a device of the first address
    QVERIFY(serveUntil([&] { return status().contains(u"5 connections open"_s); }));
    QVERIFY(isServed());
    QVERIFY(isRefused());
    devices.clear();
}

// A refused connection does not count as open, not even for a moment: so maxConnections is not
// reached.
void tst_ConnectionLimits::refusedOnesAreNotOpen()
{
    startWith({{u"maxConnections"_s, 2}, {u"maxConnectionsPerAddress"_s, 1}});
    QVERIFY(isServed());
    for (int i = 0; i < 5; ++i)
        QVERIFY(isRefused());
    QVERIFY(!status().contains(u"paused"_s));
    QVERIFY(isServed(strangerAddress()));
    QVERIFY(serveUntil([&] { return warnings().size() == 2; }));
    QVERIFY(warnings().first().contains(u"Too many connections of one address"_s));
    QVERIFY(warnings().last().contains(u"2 connections are open"_s));
    devices.clear();
}

void tst_ConnectionLimits::addressesOfANetworkCountAsOne()
{
    startWith({{u"maxConnectionsPerAddress"_s, 1}, {u"addressBits"_s, QJsonArray{8, 64}}});
    QVERIFY(isServed());
    QVERIFY(isRefused(strangerAddress()));
    QVERIFY(isRefused(testAddress()));
    devices.clear();
}

void tst_ConnectionLimits::behindAProxyTheDeviceCounts()
{
    startWith({{u"maxConnectionsPerAddress"_s, 1}}, rule());
    const auto comesThrough = [this](const QHostAddress &peer, quint16 peerPort) {
        ProxiedDevice &device = connected();
        return device.socket().send(text(peer, peerPort));
    };
    QVERIFY(comesThrough(QHostAddress(u"203.0.113.7"_s), 1));
    QVERIFY(send(devices.back(), "one\n") && waitForRecords(1));
    QVERIFY(comesThrough(QHostAddress(u"203.0.113.8"_s), 1));
    QVERIFY(send(devices.back(), "two\n") && waitForRecords(2));
    QVERIFY(comesThrough(QHostAddress(u"203.0.113.7"_s), 2));
    QVERIFY(waitForEnd(devices.back()));
    QCOMPARE(warnings(),
             QStringList(u"W: TcpInputPlugin2(t): Too many connections of one address: 1 refused, "
                         "the latest from 203.0.113.7:2"_s));
    devices.clear();
}

// The burst is accepted at once, the others at the configured rate.
void tst_ConnectionLimits::rateMakesThemWait()
{
    constexpr int Devices = 7;
    startWith({{u"connectionRate"_s, QJsonObject{{u"perSecond"_s, 10}, {u"burst"_s, 3}}}});
    QElapsedTimer elapsed;
    elapsed.start();
    for (int i = 0; i < Devices; ++i)
        connected();
    for (ProxiedDevice &device : devices)
        QVERIFY(send(device, "served\n"));
    QVERIFY(waitForRecords(Devices));
    QVERIFY2(elapsed.elapsed() >= 390, qPrintable(QString::number(elapsed.elapsed())));
    QCOMPARE(warnings(), QStringList());
    devices.clear();
}

void tst_ConnectionLimits::handshakesMakeOthersWait()
{
    QFETCH_GLOBAL(bool, tls);
    startWith({{u"maxHandshakes"_s, 2}});
    connected(); // all four devices send nothing at first
    connected();
    if (tls)
        QVERIFY(serveUntil([&] { return status().endsWith(u"accepting paused"_s); }));
    connected();
    connected();
    if (tls) {
        QCOMPARE(status(), u"Limits: 2 connections open, 0 refused, accepting paused"_s);
        devices.pop_front();
        QVERIFY(send(devices.at(1), "third\n"));
        QVERIFY(waitForRecords(1));
        devices.pop_front();
        QVERIFY(send(devices.at(1), "fourth\n"));
        QVERIFY(waitForRecords(2));
    } else {
        QVERIFY(serveUntil([&] { return status() == u"Limits: 4 connections open, 0 refused"_s; }));
    }
    devices.clear();
}

// The default time-out of a handshake is five seconds.
void tst_ConnectionLimits::handshakesMayTakeMore()
{
    QFETCH_GLOBAL(bool, tls);
    if (!tls)
        QSKIP("There is no handshake");
    startWith({{u"handshakeTimeout"_s, 7}});
    QElapsedTimer elapsed;
    elapsed.start();
    QVERIFY(isRefused()); // the device sends nothing
    QVERIFY2(elapsed.elapsed() >= 6650, qPrintable(QString::number(elapsed.elapsed())));
    devices.clear();
}

void tst_ConnectionLimits::anotherStartHasOtherLimits()
{
    startWith({{u"maxConnections"_s, 1}});
    QVERIFY(isServed());
    QVERIFY(plugin->stop());
    QJsonObject config = plugin->config;
    config.remove(u"limits"_s);
    plugin->setConfig(config);
    QVERIFY(plugin->start());
    QVERIFY(isListening(*plugin));
    QVERIFY(isServed());
    QVERIFY(isServed());
    QVERIFY(!plugin->getStatus().contains(u"Limits"_s));
    devices.clear();
}

// The devices wait in the kernel. Open connections go on.
void tst_ConnectionLimits::hostPausesAccepting()
{
    startWith({}, {{u"prompt"_s, true}});
    QVERIFY(isServed());
    const auto accepted = [this] { return CountersEvent::countersOf(*plugin)->accepted; };
    for (int round = 0; round < 3; ++round) {
        QVERIFY(AcceptPause::ask(*plugin, true));
        const quint64 before = accepted();
        for (int i = 0; i < 3; ++i)
            connected();
        QElapsedTimer elapsed; // the guard looks again meanwhile
        elapsed.start();
        QVERIFY(serveUntil([&] { return elapsed.hasExpired(100); }));
        const qsizetype count = records.size();
        QVERIFY(send(devices.front(), "goes on\n"));
        QVERIFY(waitForRecords(count + 1));
        QCOMPARE(accepted(), before);

        QVERIFY(AcceptPause::ask(*plugin, false));
        QVERIFY(serveUntil([&] { return accepted() == before + 3; }));
        QVERIFY(send(devices.back(), "waited\n"));
        QVERIFY(waitForRecords(count + 2));
    }
    QCOMPARE(warnings(), QStringList());
    devices.clear();
}

QTEST_GUILESS_MAIN(tst_ConnectionLimits)
#include "tst_connectionlimits.moc"
