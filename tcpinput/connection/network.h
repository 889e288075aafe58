// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include <QtCore/QString>
#include <QtNetwork/QHostAddress>

#include <optional>

/*!
    A range of addresses.

    Thread: any, a value.
*/
class Network
{
public:
    // "10.0.0.0/8", "fd00::/8", or an address, which is a network of one. Nothing for any other
    // text, also one that leaves out numbers.
    static std::optional<Network> from(const QString &text);

    // An IPv4 address is the same whether it is mapped into IPv6 or not.
    bool contains(const QHostAddress &address) const;

private:
    Network(const QHostAddress &networkAddress, int prefixBits)
        : network(networkAddress),
          bits(prefixBits)
    {}

    QHostAddress network;
    int bits; // that are equal in all of its addresses
};
