// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "tcpinput/configuration/limitkeys.h"

#include "tcpinput/configuration/values.h"

const std::array<LimitKey, 3> &limitKeys()
{
    static constexpr std::array<LimitKey, 3> All{{
            {"connectionBuffer", "integral number, bytes", "1 to 9007199254740991", values::isSize,
             [](const QJsonValue &value, Limits &limits) {
                 limits.connectionBuffer = value.toInteger();
             }},
            {"stalledTimeout", "integral number, seconds", "1 to 2147483647", values::isPositive,
             [](const QJsonValue &value, Limits &limits) {
                 limits.stalledTimeout = std::chrono::seconds(value.toInt());
             }},
            {"totalBuffer", "integral number, bytes", "1 to 9007199254740991", values::isSize,
             [](const QJsonValue &value, Limits &limits) {
                 limits.totalBuffer = value.toInteger();
             }},
    }};
    return All;
}

Limits limitsFrom(const QJsonObject &object)
{
    Limits limits;
    for (const LimitKey &key : limitKeys()) {
        const auto value = object.constFind(QLatin1String(key.name));
        if (value != object.constEnd())
            key.read(*value, limits);
    }
    return limits;
}
