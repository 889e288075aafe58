// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "host/web/webaddress.h"

#include <algorithm>

namespace host {
namespace {

//! "HOST", "HOST:PORT" or "[HOST]:PORT", in its parts.
struct Parts
{
    QString host; // without brackets
    QString port; // null: none
    bool isBracketed = false;
};

std::optional<Parts> partsOf(const QString &text)
{
    Parts parts;
    QString rest = text;
    if (text.startsWith(QLatin1Char('['))) {
        const qsizetype end = text.indexOf(QLatin1Char(']'));
        if (end < 0)
            return {};
        parts.isBracketed = true;
        parts.host = text.mid(1, end - 1);
        rest = text.mid(end + 1);
        if (!rest.isEmpty() && !rest.startsWith(QLatin1Char(':')))
            return {};
    }
    const qsizetype colon = rest.indexOf(QLatin1Char(':'));
    if (!parts.isBracketed)
        parts.host = rest.left(colon);
    if (colon >= 0)
        parts.port = rest.mid(colon + 1);
    return parts;
}

bool isDigits(const QString &text)
{
    return !text.isEmpty() && std::all_of(text.begin(), text.end(), [](QChar each) {
        return each >= QLatin1Char('0') && each <= QLatin1Char('9');
    });
}

// Null: it is none. An IPv4 address has four numbers: Qt also takes fewer.
QHostAddress addressOf(const Parts &parts)
{
    const QHostAddress address(parts.host);
    const bool isV6 = address.protocol() == QAbstractSocket::IPv6Protocol;
    constexpr int DotsOfV4 = 3;
    if (isV6 != parts.isBracketed || (!isV6 && parts.host.count(QLatin1Char('.')) != DotsOfV4))
        return {};
    return address;
}

} // namespace

QString WebAddress::toString() const
{
    const bool isV6 = address.protocol() == QAbstractSocket::IPv6Protocol;
    return (isV6 ? QStringLiteral("[%1]:%2") : QStringLiteral("%1:%2"))
            .arg(address.toString())
            .arg(port);
}

std::optional<WebAddress> parseWebAddress(const QString &text)
{
    WebAddress result{QHostAddress(QHostAddress::LocalHost), 0};
    std::optional<Parts> parts = partsOf(text);
    if (!parts)
        return {};
    if (!parts->isBracketed && parts->port.isNull())
        std::swap(parts->host, parts->port); // the port alone
    if (parts->isBracketed || !parts->host.isEmpty())
        result.address = addressOf(*parts);
    bool isNumber = false;
    result.port = parts->port.toUShort(&isNumber);
    if (result.address.isNull() || !isNumber || !isDigits(parts->port))
        return {};
    return result;
}

bool isOwnHost(const QString &hostHeader, const QHostAddress &local)
{
    const std::optional<Parts> parts = partsOf(hostHeader);
    if (!parts || (!parts->port.isNull() && !isDigits(parts->port)))
        return false;
    if (!parts->isBracketed
        && parts->host.compare(QLatin1String("localhost"), Qt::CaseInsensitive) == 0)
        return true;
    const QHostAddress address = addressOf(*parts);
    return !address.isNull() && (address.isLoopback() || address == local);
}

} // namespace host
