// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "tcpinput/connection/network.h"

#include <QtCore/QStringList>

#include <algorithm>

namespace {

constexpr int Ipv4Bits = 32;
constexpr int Ipv6Bits = 128;
constexpr qsizetype Ipv4Dots = 3;

bool isIpv4(const QHostAddress &address)
{
    return address.protocol() == QAbstractSocket::IPv4Protocol;
}

QHostAddress unmapped(const QHostAddress &address)
{
    bool isIpv4 = false;
    const quint32 inside = address.toIPv4Address(&isIpv4); // also of a mapped one
    return isIpv4 ? QHostAddress(inside) : address;
}

// Digits only, at most that number; nothing otherwise.
std::optional<int> bitsFrom(const QString &text, int most)
{
    const bool digits = std::all_of(text.begin(), text.end(), [](QChar each) {
        return each >= QLatin1Char('0') && each <= QLatin1Char('9');
    });
    bool isNumber = false;
    const int bits = text.toInt(&isNumber);
    if (!digits || !isNumber || bits > most)
        return std::nullopt;
    return bits;
}

} // namespace

std::optional<Network> Network::from(const QString &text)
{
    const QStringList parts = text.split(QLatin1Char('/'));
    QHostAddress address;
    if (parts.size() > 2 || !address.setAddress(parts[0]) || !address.scopeId().isEmpty())
        return std::nullopt;
    // Qt takes "10" for 0.0.0.10.
    if (isIpv4(address) && parts[0].count(QLatin1Char('.')) != Ipv4Dots)
        return std::nullopt;
    const int most = isIpv4(address) ? Ipv4Bits : Ipv6Bits;
    const auto bits = parts.size() == 2 ? bitsFrom(parts[1], most) : std::optional(most);
    if (!bits)
        return std::nullopt;
    const QHostAddress plain = unmapped(address);
    if (isIpv4(plain) && *bits >= most - Ipv4Bits)
        return Network(plain, *bits - (most - Ipv4Bits));
    return Network(address, *bits);
}

bool Network::contains(const QHostAddress &address) const
{
    return unmapped(address).isInSubnet(network, bits) || address.isInSubnet(network, bits);
}
