// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "tcpinput/accept/proxyheader.h"

#include <QtCore/QByteArrayList>
#include <QtCore/QtEndian>

#include <algorithm>

#include <arpa/inet.h>
#include <netinet/in.h>

namespace {

// Version 1: a line of text.
constexpr QByteArrayView TextStart("PROXY ");
constexpr QByteArrayView UnknownStart("PROXY UNKNOWN");
constexpr qsizetype LeastText = 15; // "PROXY UNKNOWN" and the end of the line
constexpr qsizetype MostText = 107;
constexpr qsizetype TextBlanks = 5;

// Version 2: a signature, two bytes, the length of the rest; then addresses and extra values.
constexpr QByteArrayView Signature("\r\n\r\n\0\r\nQUIT\n", 12);
constexpr qsizetype CommandAt = 12;
constexpr qsizetype FamilyAt = 13;
constexpr qsizetype LengthAt = 14;
constexpr qsizetype BinaryStart = 16;
constexpr int LocalCommand = 0x20; // with the version in the upper four bits
constexpr int ProxyCommand = 0x21;
constexpr int Ipv4 = 1; // the upper four bits of the family's byte
constexpr int Ipv6 = 2;
constexpr int Unix = 3;
constexpr int Stream = 1; // its lower four bits
constexpr int Datagram = 2;

// An extra value: a byte that says which, two for its length, the value.
constexpr qsizetype ExtraStart = 3;
constexpr int Checksum = 0x03;
constexpr qsizetype ChecksumBytes = 4;

int byteAt(QByteArrayView bytes, qsizetype index)
{
    return static_cast<unsigned char>(bytes[index]);
}

quint16 numberAt(QByteArrayView bytes, qsizetype index)
{
    return qFromBigEndian<quint16>(bytes.data() + index);
}

bool isKnown(int command, int family)
{
    return command == LocalCommand
            || (command == ProxyCommand && family >> 4 <= Unix && (family & 0xf) <= Datagram);
}

// Both as far as they go.
bool haveOneStart(QByteArrayView left, QByteArrayView right)
{
    const qsizetype size = std::min(left.size(), right.size());
    return left.first(size) == right.first(size);
}

// CRC32C. Bit by bit: a header has some dozen bytes.
quint32 checksumOf(QByteArrayView bytes)
{
    constexpr quint32 Polynomial = 0x82f63b78;
    quint32 sum = ~0U;
    for (const char byte : bytes) {
        sum ^= static_cast<unsigned char>(byte);
        for (int bit = 0; bit < 8; ++bit)
            sum = (sum >> 1U) ^ ((sum & 1U) != 0 ? Polynomial : 0U);
    }
    return ~sum;
}

// Bytes of both addresses and ports.
qsizetype addressBytes(int family)
{
    switch (family) {
    case Ipv4:
        return 12;
    case Ipv6:
        return 36;
    case Unix:
        return 216;
    default:
        return 0;
    }
}

// Null if the text is none of that family. Other forms than the usual one, with leading zeros for
// example, are none.
QHostAddress addressFrom(const QByteArray &text, bool isIpv6)
{
    if (isIpv6) {
        Q_IPV6ADDR address{};
        return ::inet_pton(AF_INET6, text.constData(), &address) == 1 ? QHostAddress(address)
                                                                      : QHostAddress();
    }
    in_addr address{};
    return ::inet_pton(AF_INET, text.constData(), &address) == 1
            ? QHostAddress(ntohl(address.s_addr))
            : QHostAddress();
}

bool isPort(const QByteArray &text)
{
    const bool digits = std::all_of(text.begin(), text.end(),
                                    [](char each) { return each >= '0' && each <= '9'; });
    bool fits = false;
    text.toUShort(&fits);
    return digits && fits && (text.size() == 1 || !text.startsWith('0'));
}

} // namespace

qsizetype ProxyHeader::wanted() const
{
    if (current != State::Incomplete)
        return 0;
    const qsizetype size = read.size();
    if (size < LeastText) // the shortest of both versions
        return LeastText - size;
    if (!isText())
        return (size < BinaryStart ? 0 : numberAt(read, LengthAt)) + BinaryStart - size;
    if (read.endsWith('\r'))
        return 1;
    // What is missing at least: the end of the line, and a character behind each blank.
    const qsizetype blanks = read.startsWith(UnknownStart)
            ? 0
            : std::max<qsizetype>(0, TextBlanks - read.count(' '));
    return std::min(2 + 2 * blanks, MostText - size);
}

ProxyHeader::State ProxyHeader::append(QByteArrayView bytes)
{
    Q_ASSERT(bytes.size() <= wanted());
    read += bytes;
    if (current == State::Incomplete && !read.isEmpty())
        current = isText() ? stateOfText() : stateOfBinary();
    return current;
}

bool ProxyHeader::isText() const
{
    return read[0] == TextStart[0];
}

ProxyHeader::State ProxyHeader::stateOfText()
{
    if (!haveOneStart(read, TextStart))
        return State::Malformed;
    const qsizetype end = read.indexOf('\n');
    if (end < 0) {
        const qsizetype lone = read.indexOf('\r');
        const bool goesOn = (lone < 0 || lone == read.size() - 1) && read.size() < MostText;
        return goesOn ? State::Incomplete : State::Malformed;
    }
    return end == read.size() - 1 && readText() ? State::Complete : State::Malformed;
}

// Of the whole line.
bool ProxyHeader::readText()
{
    if (!read.endsWith("\r\n") || read.indexOf('\r') != read.size() - 2)
        return false;
    const QByteArray line = read.chopped(2);
    if (line == UnknownStart || line.startsWith(UnknownStart.toByteArray() + ' '))
        return true; // what follows is nobody's
    if (line.contains('\0'))
        return false;
    const QByteArrayList words = line.split(' ');
    if (words.size() != TextBlanks + 1 || (words[1] != "TCP4" && words[1] != "TCP6"))
        return false;
    const bool isIpv6 = words[1] == "TCP6";
    const QHostAddress source = addressFrom(words[2], isIpv6);
    if (source.isNull() || addressFrom(words[3], isIpv6).isNull() || !isPort(words[4])
        || !isPort(words[5]))
        return false;
    peerAddress = source;
    port = words[4].toUShort();
    return true;
}

ProxyHeader::State ProxyHeader::stateOfBinary()
{
    if (!haveOneStart(read, Signature))
        return State::Malformed;
    if (read.size() < BinaryStart)
        return State::Incomplete;
    const qsizetype size = BinaryStart + numberAt(read, LengthAt);
    if (size > MostBytes || !isKnown(byteAt(read, CommandAt), byteAt(read, FamilyAt)))
        return State::Malformed;
    if (read.size() < size)
        return State::Incomplete;
    return readBinary() ? State::Complete : State::Malformed;
}

// Of the whole header.
bool ProxyHeader::readBinary()
{
    const int family = byteAt(read, FamilyAt) >> 4;
    // Whatever follows: with LOCAL, proxies put dummies there. Without a family the proxy does not
    // know.
    if (byteAt(read, CommandAt) == LocalCommand || family == 0)
        return true;
    const qsizetype addresses = addressBytes(family);
    if (read.size() < BinaryStart + addresses || !areExtrasGood(BinaryStart + addresses))
        return false;
    if ((byteAt(read, FamilyAt) & 0xf) != Stream || family == Unix)
        return true; // no peer that a connection of ours could have
    const char *source = read.constData() + BinaryStart;
    if (family == Ipv4)
        peerAddress.setAddress(qFromBigEndian<quint32>(source));
    else
        peerAddress.setAddress(reinterpret_cast<const quint8 *>(source));
    // Behind both addresses, which have the same length.
    port = numberAt(read, BinaryStart + addresses - 4);
    return true;
}

// Whether the extra values fill the rest, and the checksum, if there is one, is right. Two would be
// one too many: each costs a walk through the header.
bool ProxyHeader::areExtrasGood(qsizetype begin) const
{
    bool isChecked = false;
    for (qsizetype at = begin; at < read.size();) {
        if (read.size() - at < ExtraStart)
            return false;
        const qsizetype length = numberAt(read, at + 1);
        const qsizetype value = at + ExtraStart;
        if (read.size() - value < length)
            return false;
        if (byteAt(read, at) == Checksum) {
            if (isChecked || length != ChecksumBytes)
                return false;
            isChecked = true;
            const auto sum = qFromBigEndian<quint32>(read.constData() + value);
            QByteArray cleared = read;
            cleared.replace(value, ChecksumBytes, QByteArray(ChecksumBytes, '\0'));
            if (checksumOf(cleared) != sum)
                return false;
        }
        at = value + length;
    }
    return true;
}
