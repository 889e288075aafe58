// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "tests/endtoend/proxytest.h"

using namespace proxyheaders;
using namespace Qt::StringLiterals;

namespace {

const QHostAddress Ipv4Peer(u"203.0.113.7"_s);
const QHostAddress Ipv6Peer(u"2001:db8::7:1"_s);
constexpr quint16 PeerPort = 56324;

} // namespace

/*!
    The peer of a connection with a valid header, and of one that needs no header.
*/
class tst_ProxyPeers : public ProxyTest
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase_data() { addTransports(); }
    void init() { begin(); }
    void cleanup() { end(); }

    void headerNamesThePeer_data();
    void headerNamesThePeer();
    void failedHandshakeNamesThePeer();
    void headerWithoutPeer_data();
    void headerWithoutPeer();
    void headerByteByByte_data();
    void headerByteByByte();
    void headerAndMessageInOnePiece_data();
    void headerAndMessageInOnePiece();
    void othersAreServed();
    void withoutTheKeyAHeaderIsData();
    void equalPeersHaveIdsOfTheirOwn_data();
    void equalPeersHaveIdsOfTheirOwn();
    void idIsFreeAgain();
    void manyDevices();
};

void tst_ProxyPeers::headerNamesThePeer_data()
{
    QTest::addColumn<QByteArray>("header");
    QTest::addColumn<QHostAddress>("peer");
    QTest::newRow("text, IPv4") << text(Ipv4Peer, PeerPort) << Ipv4Peer;
    QTest::newRow("text, IPv6") << text(Ipv6Peer, PeerPort) << Ipv6Peer;
    QTest::newRow("binary, IPv4") << binary(Ipv4Peer, PeerPort) << Ipv4Peer;
    QTest::newRow("binary, IPv6") << binary(Ipv6Peer, PeerPort) << Ipv6Peer;
    QTest::newRow("binary, extra value")
            << binary(Ipv4Peer, PeerPort, extra(0x05, QByteArray(100, 'u'))) << Ipv4Peer;
}

// Ids, records, the status text and all log lines have the device's address, never the proxy's.
void tst_ProxyPeers::headerNamesThePeer()
{
    QFETCH(QByteArray, header);
    QFETCH(QHostAddress, peer);
    const QString endpoint = u"%1:%2"_s.arg(peer.toString()).arg(PeerPort);
    start(rule());
    ProxiedDevice device = newDevice();
    QVERIFY(connectAndSend(device, header, "message"));
    QVERIFY(waitForRecords(1));
    QCOMPARE(records[0]->getOriginalMessage(), QByteArray("message"));
    QCOMPARE(records[0]->getPeerAddress(), peer.toString());
    QCOMPARE(records[0]->getPeerPort(), PeerPort);
    QCOMPARE(idOf(0), expectedId(endpoint));
    QCOMPARE(records[0]->getSource(), u"TCP:"_s + expectedId(endpoint));
    QVERIFY(plugin->getStatus().contains(u"   %1\r\n"_s.arg(expectedId(endpoint))));

    plugin->discard(7, records[0]->getPluginSubId());
    device.socket().close();
    const QString closing = u"D: TcpClient: closing connection %1 (received 7 bytes, 1 msgs)"_s.arg(
            expectedId(endpoint));
    QVERIFY(serveUntil([&] { return lines().contains(closing); }));
    const QString read = u"D: TCP READ: %1:%2 (%3)"_s.arg(testAddress().toString());
    QVERIFY(lines().contains(read.arg(port).arg(endpoint)));
    QVERIFY(lines().contains(u"D: TcpTask2: new connection "_s + expectedId(endpoint)));
    QCOMPARE(lines().filter(proxyAddress().toString()), QStringList());
    QCOMPARE(warnings(), QStringList());
    QCOMPARE(records.size(), 1);
}

// Not the proxy, although that is who the socket knows.
void tst_ProxyPeers::failedHandshakeNamesThePeer()
{
    QFETCH_GLOBAL(bool, tls);
    if (!tls)
        QSKIP("no handshake");
    QJsonObject config = rule();
    config.insert(u"logPeers"_s, true);
    start(config);
    ProxiedDevice device = newDevice();
    QVERIFY(device.connect(port));
    QVERIFY(device.socket().send(text(Ipv4Peer, PeerPort)
                                 + QByteArray("\x16\x03\x01\0\x05hello", 10)));
    QVERIFY(serveUntil([&] { return !warnings().isEmpty(); }));
    QCOMPARE(warnings().size(), 1);
    const QString end = u", from %1:%2"_s.arg(Ipv4Peer.toString()).arg(PeerPort);
    QVERIFY2(warnings().first().endsWith(end), qPrintable(warnings().first()));
}

void tst_ProxyPeers::headerWithoutPeer_data()
{
    QTest::addColumn<QByteArray>("header");
    QTest::newRow("text, unknown") << QByteArray("PROXY UNKNOWN\r\n");
    QTest::newRow("text, unknown with addresses")
            << QByteArray("PROXY UNKNOWN ffff::1 ffff::2 1 2\r\n");
    QTest::newRow("local") << binary(Local, Unknown, {});
    QTest::newRow("local with dummies") << binary(Local, Tcp4, block(Ipv4Peer, PeerPort));
    QTest::newRow("no family") << binary(Proxy, Unknown, {});
    QTest::newRow("unix") << binary(Proxy, UnixStream, QByteArray(216, '/'));
}

void tst_ProxyPeers::headerWithoutPeer()
{
    QFETCH(QByteArray, header);
    start(rule());
    ProxiedDevice device = newDevice();
    QVERIFY(connectAndSend(device, header, "message"));
    QVERIFY(waitForRecords(1));
    QCOMPARE(records[0]->getOriginalMessage(), QByteArray("message"));
    QCOMPARE(records[0]->getPeerAddress(), proxyAddress().toString());
    QCOMPARE(idOf(0), expectedId(device.endpoint()));
    QCOMPARE(warnings(), QStringList());
}

void tst_ProxyPeers::headerByteByByte_data()
{
    headerNamesThePeer_data();
}

void tst_ProxyPeers::headerByteByByte()
{
    QFETCH(QByteArray, header);
    QFETCH(QHostAddress, peer);
    start(rule());
    ProxiedDevice device = newDevice();
    QVERIFY(device.connect(port));
    for (const char byte : header) {
        QVERIFY(device.socket().send(QByteArray(1, byte)));
        QCoreApplication::processEvents();
    }
    QVERIFY(send(device, "message"));
    QVERIFY(waitForRecords(1));
    QCOMPARE(records[0]->getOriginalMessage(), QByteArray("message"));
    QCOMPARE(records[0]->getPeerAddress(), peer.toString());
}

void tst_ProxyPeers::headerAndMessageInOnePiece_data()
{
    headerNamesThePeer_data();
}

// With TLS: header and ClientHello in one piece.
void tst_ProxyPeers::headerAndMessageInOnePiece()
{
    QFETCH(QByteArray, header);
    QFETCH(QHostAddress, peer);
    start(rule());
    ProxiedDevice device = newDevice();
    QVERIFY(device.connect(port));
    device.sayFirst(header);
    QVERIFY(send(device, "message"));
    QVERIFY(waitForRecords(1));
    QCOMPARE(records[0]->getOriginalMessage(), QByteArray("message"));
    QCOMPARE(records[0]->getPeerAddress(), peer.toString());
}

void tst_ProxyPeers::othersAreServed()
{
    start(rule());
    ProxiedDevice device = newDevice();
    QVERIFY(connectAndSend(device, {}, "PROXY UNKNOWN\r\n", strangerAddress()));
    QVERIFY(waitForRecords(1));
    QCOMPARE(records[0]->getOriginalMessage(), QByteArray("PROXY UNKNOWN\r\n"));
    QCOMPARE(idOf(0), expectedId(device.endpoint()));
    QCOMPARE(warnings(), QStringList());
}

void tst_ProxyPeers::withoutTheKeyAHeaderIsData()
{
    start({});
    ProxiedDevice device = newDevice();
    QVERIFY(connectAndSend(device, {}, text(Ipv4Peer, PeerPort) + "message"));
    QVERIFY(waitForRecords(1));
    QCOMPARE(records[0]->getOriginalMessage(), text(Ipv4Peer, PeerPort) + "message");
    QCOMPARE(idOf(0), expectedId(device.endpoint()));
}

void tst_ProxyPeers::equalPeersHaveIdsOfTheirOwn_data()
{
    QTest::addColumn<int>("workers");
    QTest::addColumn<bool>("offsets");
    QTest::newRow("one worker") << 1 << false;
    QTest::newRow("two workers") << 2 << false;
    QTest::newRow("one worker, offsets") << 1 << true;
}

// Each connection has its own id, so a discard reaches only its own connection.
void tst_ProxyPeers::equalPeersHaveIdsOfTheirOwn()
{
    QFETCH(int, workers);
    QFETCH(bool, offsets);
    QJsonObject config = rule();
    config.insert(u"threadpoolSize"_s, workers);
    config.insert(u"offsets"_s, offsets);
    start(config);
    const QByteArray header = binary(Ipv4Peer, PeerPort);
    ProxiedDevice first = newDevice();
    ProxiedDevice second = newDevice();
    QVERIFY(connectAndSend(first, header, "first"));
    QVERIFY(waitForRecords(1));
    QVERIFY(connectAndSend(second, header, "other"));
    QVERIFY(waitForRecords(2));
    const QString plain = expectedId(u"%1:%2"_s.arg(Ipv4Peer.toString()).arg(PeerPort));
    QCOMPARE(idOf(0), plain);
    const QRegularExpression numbered(
            u"\\A%1#([1-9][0-9]*)\\z"_s.arg(QRegularExpression::escape(plain)));
    const auto match = numbered.match(idOf(1));
    QVERIFY2(match.hasMatch(), qPrintable(idOf(1)));
    QCOMPARE(records[1]->getSource(), u"TCP:"_s + idOf(1));
    QCOMPARE(records[1]->getPeerPort(), PeerPort);
    if (offsets)
        QCOMPARE(match.captured(1), records[1]->getPluginSubIdKey(u"connection"_s));
    const QString status = plugin->getStatus();
    for (qsizetype index : {0, 1})
        QVERIFY(status.contains(u"   %1\r\n"_s.arg(idOf(index))));

    plugin->discard(5, records[1]->getPluginSubId());
    second.socket().close();
    first.socket().close(); // its last offer has the bytes that were not discarded
    QVERIFY(waitForRecords(3));
    plugin.reset();
    QCOMPARE(records.size(), 3);
    QCOMPARE(idOf(2), plain);
    QCOMPARE(records[2]->getOriginalMessage(), QByteArray("first"));
}

// The id is free when the connection before has left the plugin. The device cannot see when that
// is, so it tries again.
void tst_ProxyPeers::idIsFreeAgain()
{
    start(rule());
    const QString plain = expectedId(u"%1:%2"_s.arg(Ipv4Peer.toString()).arg(PeerPort));
    for (int turn = 0; turn < 3; ++turn) {
        const QDeadlineTimer deadline(HangGuardMs);
        do {
            QVERIFY(!deadline.hasExpired());
            records.clear();
            ProxiedDevice device = newDevice();
            QVERIFY(connectAndSend(device, binary(Ipv4Peer, PeerPort), "message"));
            QVERIFY(waitForRecords(1));
            plugin->discard(7, records[0]->getPluginSubId());
        } while (idOf(0) != plain);
    }
}

// Each record has the address of the header that came before its message.
void tst_ProxyPeers::manyDevices()
{
    constexpr int Count = 300;
    start(rule());
    const auto peerOf = [](int number) {
        return QHostAddress(Ipv4Peer.toIPv4Address() + quint32(number % 100));
    };
    const auto portOf = [](int number) { return quint16(1000 + number); };
    bool sent = true;
    QVERIFY(play([&] {
        for (int number = 0; number < Count; ++number) {
            ProxiedDevice device = newDevice();
            const QByteArray header = number % 2 == 0 ? text(peerOf(number), portOf(number))
                                                      : binary(peerOf(number), portOf(number));
            sent = sent && device.connect(port) && device.socket().send(header)
                    && device.send(QByteArray::number(number));
            device.socket().finish();
        }
    }));
    QVERIFY(sent);
    const auto allCame = [&] {
        QSet<quint16> ports;
        for (const auto &record : std::as_const(records))
            ports.insert(record->getPeerPort());
        return ports.size() == Count;
    };
    QVERIFY(serveUntil(allCame));
    for (const auto &record : std::as_const(records)) {
        const int number = record->getOriginalMessage().toInt();
        QCOMPARE(record->getPeerAddress(), peerOf(number).toString());
        QCOMPARE(record->getPeerPort(), portOf(number));
    }
    QCOMPARE(warnings(), QStringList());
}

QTEST_GUILESS_MAIN(tst_ProxyPeers)
#include "tst_proxypeers.moc"
