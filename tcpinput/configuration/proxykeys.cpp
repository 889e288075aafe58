// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "tcpinput/configuration/proxykeys.h"

#include "tcpinput/configuration/networks.h"
#include "tcpinput/configuration/values.h"

namespace {

constexpr QLatin1String FromKey("from");
constexpr QLatin1String OthersKey("others");
constexpr QLatin1String TimeoutKey("timeout");
constexpr QLatin1String Serve("serve");
constexpr QLatin1String Refuse("refuse");

bool isServeOrRefuse(const QJsonValue &value)
{
    return value.toString() == Serve || value.toString() == Refuse;
}

} // namespace

const std::array<proxykeys::Key, 3> &proxykeys::all()
{
    static constexpr std::array<Key, 3> All{{
            {"from", networks::accepted(), networks::areAccepted},
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
    rule.from = networks::from(object.value(FromKey));
    rule.servesOthers = object.value(OthersKey).toString() != Refuse;
    if (object.contains(TimeoutKey))
        rule.timeoutMs = values::msFromSeconds(object.value(TimeoutKey));
    return rule;
}
