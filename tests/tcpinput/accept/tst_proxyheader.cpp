// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "tcpinput/accept/proxyheader.h"
#include "tests/kit/proxyheaders.h"

#include <QtTest/QTest>

#include <algorithm>

using namespace proxyheaders;
using namespace Qt::StringLiterals;

namespace {

const QByteArray DeviceBytes("\r\n0123456789\r\n");

//! The result of a header, and how many of the connection's bytes it took.
struct Outcome
{
    ProxyHeader::State state = ProxyHeader::State::Incomplete;
    qsizetype taken = 0;
    QHostAddress peer;
    quint16 port = 0;

    bool operator==(const Outcome &other) const
    {
        return state == other.state && taken == other.taken && peer == other.peer
                && port == other.port;
    }
};

// Reads as from a connection: never more than the header wants, and no more than has come. ends:
// where the pieces end in which the bytes come, ascending.
Outcome readInPieces(const QByteArray &bytes, const QList<qsizetype> &ends)
{
    ProxyHeader header;
    qsizetype taken = 0;
    for (const qsizetype end : ends) {
        while (taken < end && header.state() == ProxyHeader::State::Incomplete) {
            const qsizetype size = std::min(header.wanted(), end - taken);
            if (size <= 0)
                qFatal("An incomplete header wants nothing");
            header.append(QByteArrayView(bytes).sliced(taken, size));
            taken += size;
        }
    }
    return {header.state(), taken, header.peer(), header.peerPort()};
}

Outcome readAtOnce(const QByteArray &bytes)
{
    return readInPieces(bytes, {bytes.size()});
}

QList<qsizetype> everyByte(qsizetype size)
{
    QList<qsizetype> ends;
    for (qsizetype end = 1; end <= size; ++end)
        ends.append(end);
    return ends;
}

// CRC32C with a table, to compare with.
quint32 crc32c(const QByteArray &bytes)
{
    quint32 table[256];
    for (quint32 n = 0; n < 256; ++n) {
        table[n] = n;
        for (int bit = 0; bit < 8; ++bit)
            table[n] = (table[n] & 1U) ? (table[n] >> 1U) ^ 0x82f63b78U : table[n] >> 1U;
    }
    quint32 sum = 0xffffffffU;
    for (const char byte : bytes)
        sum = table[(sum ^ static_cast<unsigned char>(byte)) & 0xffU] ^ (sum >> 8U);
    return sum ^ 0xffffffffU;
}

// A header with a checksum between two other extra values. wrong: is added to the checksum.
QByteArray checked(char command, char family, const QByteArray &addresses, quint32 wrong = 0)
{
    const QByteArray before = extra(0x05, "unique");
    const QByteArray after = extra(0x04, QByteArray(3, '\0'));
    QByteArray header =
            binary(command, family, addresses + before + extra(0x03, QByteArray(4, '\0')) + after);
    QByteArray sum(4, '\0');
    qToBigEndian(crc32c(header) + wrong, sum.data());
    return header.replace(header.size() - after.size() - 4, 4, sum);
}

const QHostAddress Ipv4Peer(u"203.0.113.7"_s);
const QHostAddress Ipv6Peer(u"2001:db8::7:1"_s);
constexpr quint16 PeerPort = 56324;

} // namespace

/*!
    The PROXY header, with the device's bytes right behind it.
*/
class tst_ProxyHeader : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void checksumOfTheBooks();
    void wellFormed_data();
    void wellFormed();
    void malformed_data();
    void malformed();
    void wantsNoMoreThanItHas_data();
    void wantsNoMoreThanItHas();
    void textIsReadInFewPieces();
};

void tst_ProxyHeader::checksumOfTheBooks()
{
    QCOMPARE(crc32c("123456789"), 0xe3069283U);
}

void tst_ProxyHeader::wellFormed_data()
{
    QTest::addColumn<QByteArray>("header");
    QTest::addColumn<QHostAddress>("peer"); // null: that of the socket
    QTest::addColumn<quint16>("port");
    const auto row = [](const char *name, const QByteArray &header,
                        const QHostAddress &peer = QHostAddress(),
                        quint16 port = 0) { QTest::newRow(name) << header << peer << port; };
    row("text, IPv4", text(Ipv4Peer, PeerPort), Ipv4Peer, PeerPort);
    row("text, IPv6", text(Ipv6Peer, PeerPort), Ipv6Peer, PeerPort);
    row("text, the shortest IPv4", "PROXY TCP4 1.2.3.4 5.6.7.8 0 1\r\n", QHostAddress(u"1.2.3.4"_s),
        0);
    row("text, the shortest IPv6", "PROXY TCP6 ::1 :: 1 0\r\n", QHostAddress(u"::1"_s), 1);
    row("text, the longest IPv6",
        "PROXY TCP6 ffff:ffff:ffff:ffff:ffff:ffff:ffff:ffff "
        "FFFF:FFFF:FFFF:FFFF:FFFF:FFFF:FFFF:FFFF 65535 65535\r\n",
        QHostAddress(u"ffff:ffff:ffff:ffff:ffff:ffff:ffff:ffff"_s), 65535);
    row("text, IPv4 in IPv6", "PROXY TCP6 ::ffff:1.2.3.4 ::ffff:5.6.7.8 7 8\r\n",
        QHostAddress(u"::ffff:1.2.3.4"_s), 7);
    row("text, unknown", "PROXY UNKNOWN\r\n");
    row("text, unknown with addresses", "PROXY UNKNOWN ffff::1 ffff::2 65535 65535\r\n");
    row("text, unknown with anything", QByteArray("PROXY UNKNOWN \x01\0\xff TCP4  \r\n", 26));
    row("text, unknown, 107 bytes", "PROXY UNKNOWN " + QByteArray(91, 'x') + "\r\n");

    row("IPv4", binary(Ipv4Peer, PeerPort), Ipv4Peer, PeerPort);
    row("IPv6", binary(Ipv6Peer, PeerPort), Ipv6Peer, PeerPort);
    row("line ends in the addresses", binary(QHostAddress(u"13.10.13.10"_s), 0x0d0a),
        QHostAddress(u"13.10.13.10"_s), 0x0d0a);
    row("extra values", binary(Ipv4Peer, PeerPort, extra(0x01, "h2") + extra(0x04, "")), Ipv4Peer,
        PeerPort);
    row("an extra value that nobody knows", binary(Ipv6Peer, PeerPort, extra('\xee', "what?")),
        Ipv6Peer, PeerPort);
    row("4 KiB", binary(Ipv4Peer, PeerPort, extra(0x04, QByteArray(4096 - 16 - 12 - 3, 'x'))),
        Ipv4Peer, PeerPort);
    row("checksum, IPv4", checked(Proxy, Tcp4, block(Ipv4Peer, PeerPort)), Ipv4Peer, PeerPort);
    row("checksum, IPv6", checked(Proxy, Tcp6, block(Ipv6Peer, PeerPort)), Ipv6Peer, PeerPort);

    row("local", binary(Local, Unknown, {}));
    row("local with addresses", binary(Local, Tcp4, block(Ipv4Peer, PeerPort)));
    row("local with half an address", binary(Local, Tcp6, QByteArray(7, 'x')));
    row("local of no known family", binary(Local, '\xff', QByteArray(3, 'x')));
    row("local with a wrong checksum", checked(Local, Tcp4, block(Ipv4Peer, PeerPort), 1));
    row("no family", binary(Proxy, Unknown, {}));
    row("no family, with bytes", binary(Proxy, Unknown, QByteArray(5, 'x')));
    row("datagrams", binary(Proxy, Udp4, block(Ipv4Peer, PeerPort)));
    row("unix", binary(Proxy, UnixStream, QByteArray(216, '/')));
    row("unix with a checksum", checked(Proxy, UnixStream, QByteArray(216, '/')));
}

void tst_ProxyHeader::wellFormed()
{
    QFETCH(QByteArray, header);
    QFETCH(QHostAddress, peer);
    QFETCH(quint16, port);
    const QByteArray all = header + DeviceBytes;
    const Outcome expected{ProxyHeader::State::Complete, header.size(), peer, port};
    QCOMPARE(readAtOnce(header).taken, header.size());
    QVERIFY(readAtOnce(header) == expected);
    QVERIFY(readAtOnce(all) == expected);
    QVERIFY(readInPieces(all, everyByte(all.size())) == expected);
    for (qsizetype split = 1; split < all.size(); ++split)
        QVERIFY2(readInPieces(all, {split, all.size()}) == expected,
                 qPrintable(u"%1"_s.arg(split)));
    for (qsizetype size = 0; size < header.size(); ++size)
        QVERIFY(readAtOnce(header.first(size)).state == ProxyHeader::State::Incomplete);
}

void tst_ProxyHeader::malformed_data()
{
    QTest::addColumn<QByteArray>("bytes");
    const auto row = [](const char *name, const QByteArray &bytes) {
        QTest::newRow(name) << bytes;
    };
    row("a message", "GET / HTTP/1.0\r\n");
    row("one byte", "x");
    row("nearly text", "PROXIMITY");
    row("small letters", "proxy UNKNOWN\r\n");
    row("text, no family", "PROXY 1.2.3.4 5.6.7.8 1 2\r\n");
    row("text, unknown and more", "PROXY UNKNOWNS\r\n");
    row("text, datagrams", "PROXY UDP4 1.2.3.4 5.6.7.8 1 2\r\n");
    row("text, LF alone", "PROXY TCP4 1.2.3.4 5.6.7.8 1 2\n");
    row("text, unknown, LF alone", "PROXY UNKNOWN\nx");
    row("text, CR alone", "PROXY TCP4 1.2.3.4\r5.6.7.8 1 2\r\n");
    row("text, unknown, CR alone", "PROXY UNKNOWN x\rx\r\n");
    row("text, two CRs", "PROXY UNKNOWN\r\r\n");
    row("text, two blanks", "PROXY TCP4  1.2.3.4 5.6.7.8 1 2\r\n");
    row("text, blank at the end", "PROXY TCP4 1.2.3.4 5.6.7.8 1 2 \r\n");
    row("text, a word too few", "PROXY TCP4 1.2.3.4 5.6.7.8 1234\r\n");
    row("text, a word too many", "PROXY TCP4 1.2.3.4 5.6.7.8 1 2 3\r\n");
    row("text, leading zeros", "PROXY TCP4 01.2.3.4 5.6.7.8 1 2\r\n");
    row("text, three numbers", "PROXY TCP4 1.2.3 5.6.7.8 1 2 \r\n");
    row("text, 256", "PROXY TCP4 1.2.3.256 5.6.7.8 1 2\r\n");
    row("text, a bad destination", "PROXY TCP4 1.2.3.4 5.6.7.x 1 2\r\n");
    row("text, IPv6 as IPv4", "PROXY TCP4 ::1 ::2 1 2 \r\n");
    row("text, IPv4 as IPv6", "PROXY TCP6 1.2.3.4 5.6.7.8 1 2\r\n");
    row("text, a zone", "PROXY TCP6 fe80::1%lo ::2 1 2\r\n");
    row("text, port 65536", "PROXY TCP4 1.2.3.4 5.6.7.8 65536 2\r\n");
    row("text, port with a leading zero", "PROXY TCP4 1.2.3.4 5.6.7.8 01 2\r\n");
    row("text, port with a sign", "PROXY TCP4 1.2.3.4 5.6.7.8 +1 2\r\n");
    row("text, a bad second port", "PROXY TCP4 1.2.3.4 5.6.7.8 1 2x\r\n");
    row("text, a zero byte", QByteArray("PROXY TCP4 1.2.3.4\0 5.6.7.8 1 2\r\n", 33));
    row("text, 108 bytes", "PROXY UNKNOWN " + QByteArray(92, 'x') + "\r\n");
    row("text without end", "PROXY UNKNOWN " + QByteArray(200, 'x'));

    row("signature, one byte wrong", "\r\n\r\n\r\n");
    row("version 1", binary(0x11, Tcp4, block(Ipv4Peer, PeerPort)));
    row("version 3", binary(0x31, Tcp4, block(Ipv4Peer, PeerPort)));
    row("command 2", binary(0x22, Tcp4, block(Ipv4Peer, PeerPort)));
    row("family 4", binary(Proxy, 0x41, block(Ipv4Peer, PeerPort)));
    row("transport 3", binary(Proxy, 0x13, block(Ipv4Peer, PeerPort)));
    row("IPv4, too short", binary(Proxy, Tcp4, block(Ipv4Peer, PeerPort).chopped(1)));
    row("IPv6, too short", binary(Proxy, Tcp6, block(Ipv6Peer, PeerPort).chopped(1)));
    row("unix, too short", binary(Proxy, UnixStream, QByteArray(215, '/')));
    row("empty", binary(Proxy, Tcp4, {}));
    row("longer than 4 KiB",
        binary(Ipv4Peer, PeerPort, extra(0x04, QByteArray(4096 - 16 - 12 - 2, 'x'))));
    row("extra value, too short", binary(Ipv4Peer, PeerPort, QByteArray(2, '\x04')));
    row("extra value beyond the end", binary(Ipv4Peer, PeerPort, extra(0x04, "abc").chopped(1)));
    row("wrong checksum, IPv4", checked(Proxy, Tcp4, block(Ipv4Peer, PeerPort), 1));
    row("wrong checksum, IPv6", checked(Proxy, Tcp6, block(Ipv6Peer, PeerPort), 1));
    row("wrong checksum, unix", checked(Proxy, UnixStream, QByteArray(216, '/'), 1));
    row("checksum of three bytes", binary(Ipv4Peer, PeerPort, extra(0x03, "abc")));
    const QByteArray good = checked(Proxy, Tcp4, block(Ipv4Peer, PeerPort));
    // With another type, the value is no checksum.
    const qsizetype type = good.indexOf(QByteArray("\x03\0\x04", 3));
    for (qsizetype index = 16; index < good.size(); ++index) {
        if (index == type)
            continue;
        QByteArray bad = good;
        bad[index] = char(bad[index] ^ 0x40);
        QTest::addRow("checked, byte %d changed", int(index)) << bad;
    }
}

void tst_ProxyHeader::malformed()
{
    QFETCH(QByteArray, bytes);
    QVERIFY(readAtOnce(bytes).state == ProxyHeader::State::Malformed);
    const Outcome outcome = readInPieces(bytes, everyByte(bytes.size()));
    QVERIFY(outcome.state == ProxyHeader::State::Malformed);
    QVERIFY(outcome.peer.isNull());
    for (qsizetype split = 1; split < bytes.size(); ++split)
        QVERIFY(readInPieces(bytes, {split, bytes.size()}).state == ProxyHeader::State::Malformed);
}

void tst_ProxyHeader::wantsNoMoreThanItHas_data()
{
    wellFormed_data();
}

// Whatever part has come: what is wanted next ends with the header at the latest.
void tst_ProxyHeader::wantsNoMoreThanItHas()
{
    QFETCH(QByteArray, header);
    ProxyHeader reader;
    for (qsizetype taken = 0; taken < header.size(); ++taken) {
        QVERIFY(reader.wanted() > 0);
        QVERIFY(reader.wanted() <= header.size() - taken);
        reader.append(QByteArrayView(header).sliced(taken, 1));
    }
    QCOMPARE(reader.wanted(), 0);
}

// Each piece is a call to the kernel.
void tst_ProxyHeader::textIsReadInFewPieces()
{
    const QByteArray header = "PROXY TCP4 203.0.113.171 198.51.100.22 56324 17446\r\n";
    ProxyHeader reader;
    int pieces = 0;
    for (qsizetype taken = 0; taken < header.size(); ++pieces) {
        const qsizetype size = reader.wanted();
        reader.append(QByteArrayView(header).sliced(taken, size));
        taken += size;
    }
    QVERIFY(reader.state() == ProxyHeader::State::Complete);
    QVERIFY2(pieces <= 12, qPrintable(QString::number(pieces)));
}

QTEST_GUILESS_MAIN(tst_ProxyHeader)
#include "tst_proxyheader.moc"
