// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "tcpinput/configuration/proxykeys.h"

#include "tcpinput/configuration/values.h"

#include <QtCore/QJsonArray>

#include <algorithm>
#include <limits>

namespace {

constexpr QLatin1String FromKey("from");
constexpr QLatin1String OthersKey("others");
constexpr QLatin1String TimeoutKey("timeout");
constexpr QLatin1String Serve("serve");
constexpr QLatin1String Refuse("refuse");

bool areNetworks(const QJsonValue &value)
{
    const QJsonArray array = value.toArray();
    return !array.isEmpty() && std::all_of(array.begin(), array.end(), [](const auto &each) {
        return Network::from(QJsonValue(each).toString()).has_value();
    });
}

bool isServeOrRefuse(const QJsonValue &value)
{
    return value.toString() == Serve || value.toString() == Refuse;
}

} // namespace

const std::array<proxykeys::Key, 3> &proxykeys::all()
{
    static constexpr std::array<Key, 3> All{{
            {"from", "an array of addresses and networks such as \"10.0.0.0/8\"", areNetworks},
            {"others", "\"serve\" or \"refuse\"", isServeOrRefuse},
            {"timeout", "1 to 2147483647", values::isPositive},
    }};
    return All;
}

bool proxykeys::isRule(const QJsonValue &value)
{
    return value.toObject().contains(FromKey);
}

ProxyRule proxykeys::ruleFrom(const QJsonObject &object)
{
    ProxyRule rule;
    const QJsonArray networks = object.value(FromKey).toArray();
    for (const auto &each : networks) {
        if (const auto network = Network::from(QJsonValue(each).toString()))
            rule.from += *network;
    }
    rule.servesOthers = object.value(OthersKey).toString() != Refuse;
    if (const qint64 seconds = object.value(TimeoutKey).toInt(); seconds > 0)
        rule.timeoutMs =
                static_cast<int>(qMin<qint64>(seconds * 1000, std::numeric_limits<int>::max()));
    return rule;
}
