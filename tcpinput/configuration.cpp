// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "tcpinput/configuration.h"

#include "plugin/cwrn.h"
#include "ssl/ssl.h"

#include <QtNetwork/QNetworkInterface>
#include <QtNetwork/QSslSocket>

#include <algorithm>
#include <limits>

namespace {

constexpr quint16 DefaultPort = 7446;
constexpr int HighestPort = 65534;

} // namespace

const std::array<Configuration::Key, 7> &Configuration::keys()
{
    static constexpr std::array<Key, 7> All{{
            {"interface", "text", "none", "the name of a network interface, or its number",
             "is ignored: an unknown name, an interface without IPv4, no text", false,
             &Configuration::readInterface},
            {"ipAddr", "text", "any IPv4 address", "an IPv4 or IPv6 address",
             "listens on 127.0.0.1, without a word; a value that is no text too", false,
             &Configuration::readAddress},
            {"offsets", "boolean", "off",
             "`true`: offers carry their position, see [HOST_GUIDE.md](HOST_GUIDE.md)",
             "anything but `true` is off", false, &Configuration::readOffsets},
            {"port", "integral number", "7446", "1 to 65534",
             "is ignored without a word: 0, negative, 65535 and above, a fraction, a text", false,
             &Configuration::readPort},
            {"ssl", "object", "absent: plain TCP", "see below",
             "a value that is no object counts as an empty object", true, &Configuration::readTls},
            {"threadpoolSize", "integral number", "4", "1 to 2147483647", "is ignored", true,
             &Configuration::readPoolSize},
            {"timeout", "integral number, seconds", "60",
             "above 0; from 2147483 on it stays at 2147483 (24 days)",
             "is ignored, also 2147483648 and above", true, &Configuration::readTimeout},
    }};
    return All;
}

bool Configuration::apply(const QJsonObject &object, const QString &pluginId)
{
    plugin = pluginId;
    // Deliberate: these three return to their defaults, the other keys keep their values.
    address = QHostAddress(QHostAddress::AnyIPv4);
    port = DefaultPort;
    offsets = false;
    tls.reset();
    return std::all_of(keys().begin(), keys().end(), [&](const Key &key) {
        const auto value = object.constFind(QLatin1String(key.name));
        return value == object.constEnd() || (this->*key.read)(*value);
    });
}

bool Configuration::readPort(const QJsonValue &value)
{
    const int number = value.toInt();
    if (number > 0 && number <= HighestPort)
        port = static_cast<quint16>(number);
    return true;
}

bool Configuration::readAddress(const QJsonValue &value)
{
    if (!address.setAddress(value.toString()))
        address = QHostAddress(QHostAddress::LocalHost);
    return true;
}

// Takes the last IPv4 address of the interface, if it has one.
bool Configuration::readInterface(const QJsonValue &value)
{
    const auto entries = QNetworkInterface::interfaceFromName(value.toString()).addressEntries();
    for (const QNetworkAddressEntry &entry : entries) {
        if (entry.ip().protocol() == QAbstractSocket::IPv4Protocol)
            address = entry.ip();
    }
    return true;
}

bool Configuration::readOffsets(const QJsonValue &value)
{
    offsets = value.toBool();
    return true;
}

bool Configuration::readTimeout(const QJsonValue &value)
{
    if (const qint64 seconds = value.toInt(); seconds > 0)
        timeoutMs = static_cast<int>(qMin<qint64>(seconds * 1000, std::numeric_limits<int>::max()));
    return true;
}

bool Configuration::readPoolSize(const QJsonValue &value)
{
    if (const int number = value.toInt(); number > 0)
        poolSize = number;
    return true;
}

bool Configuration::readTls(const QJsonValue &value)
{
    useTls = true; // stays set even if TLS cannot be set up
    if (!QSslSocket::supportsSsl()) {
        CWRN(QtWarningMsg, QStringLiteral("TcpInputPlugin2(%1): No usable TLS backend"), plugin);
        return false;
    }
    QSslConfiguration read;
    if (!ssl::readSslConfig(value.toObject(), read))
        return false;
    tls = read;
    return true;
}
