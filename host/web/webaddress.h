// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include <QtCore/QString>
#include <QtNetwork/QHostAddress>

#include <optional>

namespace host {

//! An address and port of this machine. A value.
struct WebAddress
{
    QHostAddress address;
    quint16 port = 0; // 0: the system chooses one

    // As URLs have it: an IPv6 address in brackets.
    QString toString() const;
};

// "ADDRESS:PORT", ":PORT" or "PORT"; without an address it is 127.0.0.1. An IPv6 address stands in
// brackets. Nothing: the text is something else.
std::optional<WebAddress> parseWebAddress(const QString &text);

// Whether a request with this Host header may be answered: it names localhost, a loopback address,
// or the address that the request has come to. Any other name may be one that a web page has had
// changed, so that a browser lets the page read the answer. A port in it means nothing.
bool isOwnHost(const QString &hostHeader, const QHostAddress &local);

} // namespace host
