// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include <QtCore/QByteArray>
#include <QtCore/QtEndian>
#include <QtNetwork/QHostAddress>

/*!
    PROXY headers, well-formed and malformed.
*/
namespace proxyheaders {

inline const QByteArray Signature("\r\n\r\n\0\r\nQUIT\n", 12);

inline constexpr char Local = 0x20;
inline constexpr char Proxy = 0x21;
inline constexpr char Unknown = 0x00;
inline constexpr char Tcp4 = 0x11;
inline constexpr char Udp4 = 0x12;
inline constexpr char Tcp6 = 0x21;
inline constexpr char UnixStream = 0x31;

inline QByteArray twoBytes(quint16 number)
{
    QByteArray bytes(2, '\0');
    qToBigEndian(number, bytes.data());
    return bytes;
}

inline QByteArray addressBytes(const QHostAddress &address)
{
    if (address.protocol() == QAbstractSocket::IPv6Protocol) {
        const Q_IPV6ADDR v6 = address.toIPv6Address();
        return {reinterpret_cast<const char *>(v6.c), 16};
    }
    QByteArray bytes(4, '\0');
    qToBigEndian(address.toIPv4Address(), bytes.data());
    return bytes;
}

// A version 1 header for an IPv4 or IPv6 address.
inline QByteArray text(const QHostAddress &peer, quint16 port)
{
    const bool isIpv6 = peer.protocol() == QAbstractSocket::IPv6Protocol;
    return QByteArray(isIpv6 ? "PROXY TCP6 " : "PROXY TCP4 ") + peer.toString().toLatin1()
            + (isIpv6 ? " 2001:db8::1 " : " 192.0.2.1 ") + QByteArray::number(port) + " 7446\r\n";
}

inline QByteArray extra(char type, const QByteArray &value)
{
    return type + twoBytes(static_cast<quint16>(value.size())) + value;
}

// A version 2 header with any content.
inline QByteArray binary(char command, char family, const QByteArray &rest)
{
    return Signature + command + family + twoBytes(static_cast<quint16>(rest.size())) + rest;
}

// The address block of a version 2 header.
inline QByteArray block(const QHostAddress &peer, quint16 port)
{
    const bool isIpv6 = peer.protocol() == QAbstractSocket::IPv6Protocol;
    const QHostAddress own(isIpv6 ? QStringLiteral("2001:db8::1") : QStringLiteral("192.0.2.1"));
    return addressBytes(peer) + addressBytes(own) + twoBytes(port) + twoBytes(7446);
}

inline QByteArray binary(const QHostAddress &peer, quint16 port, const QByteArray &extras = {})
{
    const bool isIpv6 = peer.protocol() == QAbstractSocket::IPv6Protocol;
    return binary(Proxy, isIpv6 ? Tcp6 : Tcp4, block(peer, port) + extras);
}

} // namespace proxyheaders
