// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "tcpinput/configuration/limitkeys.h"

#include "tcpinput/configuration/networks.h"
#include "tcpinput/configuration/values.h"

#include <QtCore/QJsonArray>

#include <algorithm>

namespace {

constexpr auto Count = "integral number";
constexpr auto Positive = "1 to 2147483647";
constexpr QLatin1String PerSecondKey("perSecond");
constexpr QLatin1String BurstKey("burst");

bool areBits(const QJsonValue &value)
{
    constexpr int Ipv4Bits = 32;
    constexpr int Ipv6Bits = 128;
    const QJsonArray bits = value.toArray();
    const auto isUpTo = [](const QJsonValue &number, int most) {
        return values::isPositive(number) && number.toInt() <= most;
    };
    return bits.size() == 2 && isUpTo(bits[0], Ipv4Bits) && isUpTo(bits[1], Ipv6Bits);
}

bool isRate(const QJsonValue &value)
{
    const QJsonObject rate = value.toObject();
    const QStringList keys = rate.keys();
    return rate.contains(PerSecondKey)
            && std::all_of(keys.begin(), keys.end(), [&rate](const QString &key) {
                   return (key == PerSecondKey || key == BurstKey)
                           && values::isPositive(rate.value(key));
               });
}

} // namespace

const std::array<limitkeys::Key, 10> &limitkeys::all()
{
    static constexpr std::array<Key, 10> All{{
            {"addressBits", "array", "two numbers: 1 to 32 for IPv4, 1 to 128 for IPv6", areBits,
             [](const QJsonValue &value, Values &values) {
                 values.connections.ipv4Bits = value[0].toInt();
                 values.connections.ipv6Bits = value[1].toInt();
             }},
            {"connectionBuffer", "integral number, bytes", "1 to 9007199254740991", values::isSize,
             [](const QJsonValue &value, Values &values) {
                 values.buffers.connectionBuffer = value.toInteger();
             }},
            {"connectionRate", "object", "\"perSecond\" and perhaps \"burst\": 1 to 2147483647",
             isRate,
             [](const QJsonValue &value, Values &values) {
                 values.connections.perSecond = value[PerSecondKey].toInt();
                 values.connections.burst = value[BurstKey].toInt();
             }},
            {"exempt", "array", networks::accepted(), networks::areAccepted,
             [](const QJsonValue &value, Values &values) {
                 values.connections.exempt = networks::from(value);
             }},
            {"handshakeTimeout", "integral number, seconds", Positive, values::isPositive,
             [](const QJsonValue &value, Values &values) {
                 values.connections.handshakeTimeoutMs = values::msFromSeconds(value);
             }},
            {"maxConnections", Count, Positive, values::isPositive,
             [](const QJsonValue &value, Values &values) {
                 values.connections.connections = value.toInt();
             }},
            {"maxConnectionsPerAddress", Count, Positive, values::isPositive,
             [](const QJsonValue &value, Values &values) {
                 values.connections.connectionsPerAddress = value.toInt();
             }},
            {"maxHandshakes", Count, Positive, values::isPositive,
             [](const QJsonValue &value, Values &values) {
                 values.connections.handshakes = value.toInt();
             }},
            {"stalledTimeout", "integral number, seconds", Positive, values::isPositive,
             [](const QJsonValue &value, Values &values) {
                 values.buffers.stalledTimeout = std::chrono::seconds(value.toInt());
             }},
            {"totalBuffer", "integral number, bytes", "1 to 9007199254740991", values::isSize,
             [](const QJsonValue &value, Values &values) {
                 values.buffers.totalBuffer = value.toInteger();
             }},
    }};
    return All;
}

limitkeys::Values limitkeys::valuesFrom(const QJsonObject &object)
{
    Values values;
    for (const Key &key : all()) {
        const auto value = object.constFind(QLatin1String(key.name));
        if (value != object.constEnd())
            key.read(*value, values);
    }
    return values;
}
