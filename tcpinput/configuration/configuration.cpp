// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "tcpinput/configuration/configuration.h"

#include "plugin/cwrn.h"
#include "ssl/extensions.h"
#include "ssl/ssl.h"
#include "ssl/sslkeys.h"
#include "tcpinput/configuration/limitkeys.h"
#include "tcpinput/configuration/proxykeys.h"
#include "tcpinput/configuration/values.h"

#include <QtNetwork/QNetworkInterface>
#include <QtNetwork/QSslSocket>

#include <algorithm>

namespace {

constexpr quint16 DefaultPort = 7446;
constexpr auto StrictKey = "strict";
constexpr QLatin1String AllEnds("all");

bool isEnds(const QJsonValue &value)
{
    return value.isBool() || value.toString() == AllEnds;
}

} // namespace

const std::array<Configuration::Key, 13> &Configuration::keys()
{
    static constexpr std::array<Key, 13> All{{
            {"ends", "boolean or text", "false", "true, false or \"all\"", "`start()` fails",
             Kept::No, Bad::Refused, isEnds, &Configuration::readEnds},
            {"interface", "text", "none", "the name of a network interface, or its number",
             "is ignored: an unknown name, an interface without IPv4, no text", Kept::No,
             Bad::Ignored, values::isInterface, &Configuration::readInterface},
            {"ipAddr", "text", "any IPv4 address", "an IPv4 or IPv6 address",
             "listens on 127.0.0.1, without a word; a value that is no text too", Kept::No,
             Bad::Ignored, values::isAddress, &Configuration::readAddress},
            {"limits", "object", "absent: no limits", "an object", "`start()` fails", Kept::No,
             Bad::Refused, values::isObject, &Configuration::readLimits},
            {"logPeers", "boolean", "false", "true or false", "`start()` fails", Kept::No,
             Bad::Refused, values::isBoolean, &Configuration::readLogPeers},
            {"offsets", "boolean", "false", "true or false", "anything but true is off", Kept::No,
             Bad::Ignored, values::isBoolean, &Configuration::readOffsets},
            {"port", "integral number", "7446", "1 to 65534",
             "is ignored without a word: 0, negative, 65535 and above, a fraction, a text",
             Kept::No, Bad::Ignored, values::isPort, &Configuration::readPort},
            {"prompt", "boolean", "false", "true or false", "`start()` fails", Kept::No,
             Bad::Refused, values::isBoolean, &Configuration::readPrompt},
            {"proxyProtocol", "object", "absent: nobody sends a PROXY header",
             "an object with \"from\"", "`start()` fails", Kept::No, Bad::Refused,
             proxykeys::isRule, &Configuration::readProxies},
            {"ssl", "object", "absent: plain TCP", "an object",
             "a value that is no object counts as an empty object", Kept::Yes, Bad::Ignored,
             values::isObject, &Configuration::readTls},
            {"strict", "boolean", "false", "true or false", "`start()` fails", Kept::No,
             Bad::Refused, values::isBoolean, nullptr},
            {"threadpoolSize", "integral number", "4", "1 to 2147483647", "is ignored", Kept::Yes,
             Bad::Ignored, values::isPositive, &Configuration::readPoolSize},
            {"timeout", "integral number, seconds", "60", "1 to 2147483647",
             "is ignored; from 2147483 on it stays at 2147483 (24 days)", Kept::Yes, Bad::Ignored,
             values::isPositive, &Configuration::readTimeout},
    }};
    return All;
}

QList<Checker::Fault> Configuration::faults(const QJsonObject &object, bool strict)
{
    Checker checker;
    checker.check({}, object, keys(), strict,
                  [strict](const Key &key) { return strict || key.bad == Bad::Refused; });
    checker.check(QStringLiteral("proxyProtocol."),
                  object.value(QLatin1String("proxyProtocol")).toObject(), proxykeys::all(), true,
                  [](const proxykeys::Key &) { return true; });
    const QJsonObject tls = object.value(QLatin1String("ssl")).toObject();
    checker.check(
            QStringLiteral("ssl."), tls, tls::keys(), strict,
            [&tls, strict](const tls::Key &key) { return tls::refusesBad(key, tls, strict); });
    checker.check(QStringLiteral("limits."), object.value(QLatin1String("limits")).toObject(),
                  limitkeys::all(), true, [](const limitkeys::Key &) { return true; });
    return checker.faults;
}

bool Configuration::check(const QJsonObject &object, const QString &pluginId)
{
    const QList<Checker::Fault> all =
            faults(object, object.value(QLatin1String(StrictKey)).toBool());
    for (const Checker::Fault &fault : all)
        CWRN(QtWarningMsg, QStringLiteral("TcpInputPlugin2(%1): Configuration: %2"), pluginId,
             fault.text);
    return all.isEmpty();
}

bool Configuration::apply(const QJsonObject &object, const QString &pluginId)
{
    plugin = pluginId;
    // Deliberate: these return to their defaults, the other keys keep their values.
    address = QHostAddress(QHostAddress::AnyIPv4);
    port = DefaultPort;
    serving = {};
    accepting = {};
    logPeers = false;
    proxies.reset();
    tls.reset();
    return std::all_of(keys().begin(), keys().end(), [&](const Key &key) {
        const auto value = object.constFind(QLatin1String(key.name));
        return value == object.constEnd() || !key.read || (this->*key.read)(*value);
    });
}

bool Configuration::readPort(const QJsonValue &value)
{
    if (values::isPort(value))
        port = static_cast<quint16>(value.toInt());
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

bool Configuration::readLimits(const QJsonValue &value)
{
    const limitkeys::Values limits = limitkeys::valuesFrom(value.toObject());
    if (limits.buffers.limitBuffers())
        serving.budget = std::make_shared<BufferBudget>(limits.buffers);
    accepting = limits.connections;
    return true;
}

bool Configuration::readLogPeers(const QJsonValue &value)
{
    logPeers = value.toBool();
    return true;
}

bool Configuration::readOffsets(const QJsonValue &value)
{
    serving.offsets = value.toBool();
    return true;
}

bool Configuration::readPrompt(const QJsonValue &value)
{
    serving.prompt = value.toBool();
    return true;
}

bool Configuration::readEnds(const QJsonValue &value)
{
    if (value.toString() == AllEnds)
        serving.ends = Serving::Ends::All;
    else if (value.toBool())
        serving.ends = Serving::Ends::WithRecords;
    return true;
}

bool Configuration::readProxies(const QJsonValue &value)
{
    proxies = proxykeys::ruleFrom(value.toObject());
    return true;
}

bool Configuration::readTimeout(const QJsonValue &value)
{
    if (values::isPositive(value))
        timeoutMs = values::msFromSeconds(value);
    return true;
}

bool Configuration::readPoolSize(const QJsonValue &value)
{
    if (values::isPositive(value))
        poolSize = value.toInt();
    return true;
}

bool Configuration::readTls(const QJsonValue &value)
{
    useTls = true; // stays set even if TLS cannot be set up
    if (!QSslSocket::supportsSsl()) {
        CWRN(QtWarningMsg, QStringLiteral("TcpInputPlugin2(%1): No usable TLS backend"), plugin);
        return false;
    }
    const QJsonObject object = value.toObject();
    tls::Settings read;
    const bool hasFiles = ssl::readSslConfig(object, read.base);
    if (!tls::readExtensions(object, read) || !hasFiles) // both, so that every fault is logged
        return false;
    tls = read;
    return true;
}
