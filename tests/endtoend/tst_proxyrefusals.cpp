// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "tests/endtoend/proxytest.h"
#include "tests/kit/processresources.h"

#include <vector>

using namespace proxyheaders;
using namespace Qt::StringLiterals;

namespace {

const QHostAddress Peer(u"203.0.113.7"_s);
constexpr quint16 PeerPort = 56324;

QString badLine(int count, const QString &endpoint, const QString &reason, int silent)
{
    return u"W: TcpInputPlugin2(t): No good PROXY header: %1 closed, the latest from %2, %3; %4 ended before their first byte"_s
            .arg(count)
            .arg(endpoint, reason)
            .arg(silent);
}

} // namespace

/*!
    Connections without a valid header. The plugin closes them with few log lines, and no other
    connection has to wait.
*/
class tst_ProxyRefusals : public ProxyTest
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase_data() { addTransports(); }
    void init() { begin(); }
    void cleanup() { end(); }

    void malformed_data();
    void malformed();
    void late_data();
    void late();
    void cutOff();
    void healthChecksSayNothing_data();
    void healthChecksSayNothing();
    void oneLineAMinute();
    void othersAreRefused();
    void slowHeadersHoldNobodyUp();
    void inTheMiddle_data();
    void inTheMiddle();

private:
    std::vector<NativeSocket> connectMany(int count);
    bool waitForSockets(qsizetype count)
    {
        return serveUntil([count] { return openSockets() == count; });
    }
    // The plugin has closed all of them.
    static bool areEnded(const std::vector<NativeSocket> &sockets)
    {
        return play([&sockets] {
            for (const NativeSocket &each : sockets) {
                if (!each.ends())
                    qFatal("A connection was not closed");
            }
        });
    }
};

// Connections from the proxy. Each sends only half a header.
std::vector<NativeSocket> tst_ProxyRefusals::connectMany(int count)
{
    std::vector<NativeSocket> sockets;
    for (int n = 0; n < count; ++n) {
        NativeSocket each = NativeSocket::unconnected(testAddress());
        if (!each.bind(proxyAddress(), 0) || !each.connect(testAddress(), port)
            || !each.send("PROXY TCP4 203.0"))
            return {};
        sockets.push_back(std::move(each));
        QCoreApplication::processEvents();
    }
    return sockets;
}

void tst_ProxyRefusals::malformed_data()
{
    QTest::addColumn<QByteArray>("bytes");
    QTest::newRow("a message") << QByteArray("hello\n");
    QTest::newRow("one byte") << QByteArray("x");
    QTest::newRow("ClientHello") << QByteArray("\x16\x03\x01\x02\x00\x01", 6);
    QTest::newRow("text") << QByteArray("PROXY TCP4 1.2.3.4 5.6.7.8 1 x\r\n");
    QTest::newRow("text without end") << QByteArray("PROXY UNKNOWN ") + QByteArray(200, 'x');
    QTest::newRow("binary") << binary(0x2f, Tcp4, block(Peer, PeerPort));
    QTest::newRow("checksum") << binary(Peer, PeerPort, extra(0x03, "1234"));
    QTest::newRow("binary, too long") << Signature + QByteArray("\x21\x11\xff\xff", 4);
}

// The plugin closes them at once. It does not wait for the header's time-out, which is long here.
void tst_ProxyRefusals::malformed()
{
    QFETCH(QByteArray, bytes);
    start(rule({{u"timeout"_s, 1000000}}));
    ProxiedDevice device = newDevice();
    QVERIFY(device.connect(port));
    QVERIFY(device.socket().send(bytes));
    QVERIFY(waitForEnd(device));
    QCOMPARE(warnings(), QStringList(badLine(1, device.endpoint(), u"malformed"_s, 0)));
    plugin.reset();
    QCOMPARE(warnings().size(), 1);
    QCOMPARE(records.size(), 0);
}

void tst_ProxyRefusals::late_data()
{
    QTest::addColumn<QByteArray>("bytes");
    QTest::newRow("nothing") << QByteArray();
    QTest::newRow("one byte") << QByteArray("P");
    QTest::newRow("text but its LF") << text(Peer, PeerPort).chopped(1);
    QTest::newRow("binary but its last byte") << binary(Peer, PeerPort).chopped(1);
}

void tst_ProxyRefusals::late()
{
    QFETCH(QByteArray, bytes);
    start(rule({{u"timeout"_s, 1}}));
    ProxiedDevice device = newDevice();
    QElapsedTimer elapsed;
    elapsed.start();
    QVERIFY(device.connect(port));
    QVERIFY(bytes.isEmpty() || device.socket().send(bytes));
    QVERIFY(waitForEnd(device));
    QVERIFY(elapsed.elapsed() >= 950); // a coarse timer may be 5 % early
    QCOMPARE(warnings(), QStringList(badLine(1, device.endpoint(), u"late"_s, 0)));
    QCOMPARE(records.size(), 0);
}

void tst_ProxyRefusals::cutOff()
{
    start(rule());
    ProxiedDevice device = newDevice();
    QVERIFY(device.connect(port));
    QVERIFY(device.socket().send("PROXY TCP4 203.0"));
    device.socket().finish();
    QVERIFY(waitForEnd(device));
    QCOMPARE(warnings(), QStringList(badLine(1, device.endpoint(), u"cut off"_s, 0)));
}

void tst_ProxyRefusals::healthChecksSayNothing_data()
{
    QTest::addColumn<bool>("reset");
    QTest::addColumn<QByteArray>("header");
    for (const bool reset : {false, true}) {
        const char *ending = reset ? "reset" : "close";
        QTest::newRow(ending) << reset << QByteArray();
        QTest::addRow("header, %s", ending) << reset << binary(Local, Unknown, {});
    }
}

// They cause no warning. But the next warning contains their number.
void tst_ProxyRefusals::healthChecksSayNothing()
{
    constexpr int Count = 5;
    QFETCH_GLOBAL(bool, tls);
    QFETCH(bool, reset);
    QFETCH(QByteArray, header);
    start(rule());
    for (int n = 0; n < Count; ++n) {
        ProxiedDevice check = newDevice();
        QVERIFY(check.connect(port));
        QVERIFY(header.isEmpty() || check.socket().send(header));
        reset ? check.socket().reset() : check.socket().close();
    }
    ProxiedDevice good = newDevice(); // accepted after the checks
    QVERIFY(connectAndSend(good, text(Peer, PeerPort), "message"));
    QVERIFY(waitForRecords(1));
    QCOMPARE(warnings(), QStringList());
    ProxiedDevice bad = newDevice();
    QVERIFY(bad.connect(port));
    QVERIFY(bad.socket().send("x"));
    QVERIFY(waitForEnd(bad));
    // Without TLS, a check that sends a header is a normal connection and is not counted.
    const int counted = header.isEmpty() || tls ? Count : 0;
    QCOMPARE(warnings(), QStringList(badLine(1, bad.endpoint(), u"malformed"_s, counted)));
}

// One warning comes at once. The others are reported together when the plugin stops.
void tst_ProxyRefusals::oneLineAMinute()
{
    constexpr int Count = 50;
    start(rule());
    QStringList endpoints;
    for (int n = 0; n < Count; ++n) {
        ProxiedDevice bad = newDevice();
        QVERIFY(bad.connect(port));
        endpoints.append(bad.endpoint());
        QVERIFY(bad.socket().send("x"));
        QVERIFY(waitForEnd(bad));
    }
    const QString first = badLine(1, endpoints.first(), u"malformed"_s, 0);
    QCOMPARE(warnings(), QStringList(first));
    plugin->stop();
    const QString rest = badLine(Count - 1, endpoints.last(), u"malformed"_s, 0);
    QCOMPARE(warnings(), QStringList({first, rest}));
    plugin.reset();
    QCOMPARE(warnings().size(), 2);
}

void tst_ProxyRefusals::othersAreRefused()
{
    start(rule({{u"others"_s, u"refuse"_s}}));
    QStringList endpoints;
    for (int n = 0; n < 3; ++n) {
        ProxiedDevice stranger = newDevice();
        QVERIFY(stranger.connect(port, strangerAddress()));
        endpoints.append(stranger.endpoint());
        QVERIFY(waitForEnd(stranger));
    }
    ProxiedDevice good = newDevice();
    QVERIFY(connectAndSend(good, text(Peer, PeerPort), "message"));
    QVERIFY(waitForRecords(1));
    QCOMPARE(records[0]->getPeerAddress(), Peer.toString());
    const QString line =
            u"W: TcpInputPlugin2(t): Not from a proxy: %1 refused, the latest from %2"_s;
    QCOMPARE(warnings(), QStringList(line.arg(1).arg(endpoints[0])));
    plugin.reset();
    QCOMPARE(warnings(),
             QStringList({line.arg(1).arg(endpoints[0]), line.arg(2).arg(endpoints[2])}));
}

void tst_ProxyRefusals::slowHeadersHoldNobodyUp()
{
    constexpr int Count = 300;
    const qsizetype before = openSockets();
    start(rule({{u"timeout"_s, 2}}));
    const std::vector<NativeSocket> slow = connectMany(Count);
    QCOMPARE(slow.size(), std::size_t(Count));
    int served = 0;
    for (const QHostAddress &from : {proxyAddress(), strangerAddress()}) {
        ProxiedDevice good = newDevice();
        QVERIFY(connectAndSend(good, from == proxyAddress() ? text(Peer, PeerPort) : QByteArray(),
                               "message", from));
        QVERIFY(waitForRecords(++served));
    }
    QVERIFY(areEnded(slow)); // the header's time-out closes them
    QCOMPARE(warnings().size(), 1);
    plugin->stop();
    const QRegularExpression rest(u"header: %1 closed, .*, late; 0 ended"_s.arg(Count - 1));
    QCOMPARE(warnings().filter(rest).size(), 1);
    plugin.reset();
    QCOMPARE(openSockets(), before + Count);
}

void tst_ProxyRefusals::inTheMiddle_data()
{
    QTest::addColumn<QString>("what");
    for (const char *what : {"stop", "destruction", "start without the key"})
        QTest::newRow(what) << QString::fromLatin1(what);
}

// Each connection is in the middle of its header.
void tst_ProxyRefusals::inTheMiddle()
{
    constexpr int Count = 20;
    QFETCH(QString, what);
    const qsizetype before = openSockets();
    start(rule());
    const qsizetype listening = openSockets() - before;
    const std::vector<NativeSocket> slow = connectMany(Count);
    QCOMPARE(slow.size(), std::size_t(Count));
    QVERIFY(waitForSockets(before + listening + 2 * Count));
    if (what == u"stop") {
        plugin->stop();
    } else if (what == u"destruction") {
        plugin.reset();
    } else {
        plugin->setConfig(tcpConfig(port));
        QVERIFY(plugin->start());
    }
    QVERIFY(areEnded(slow));
    plugin.reset();
    QCOMPARE(openSockets(), before + Count);
    QCOMPARE(warnings(), QStringList());
    QCOMPARE(records.size(), 0);
}

QTEST_GUILESS_MAIN(tst_ProxyRefusals)
#include "tst_proxyrefusals.moc"
