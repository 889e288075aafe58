// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "tcpinput/configuration/networks.h"

#include <QtCore/QJsonArray>

#include <algorithm>

bool networks::areAccepted(const QJsonValue &value)
{
    const QJsonArray array = value.toArray();
    return !array.isEmpty() && std::all_of(array.begin(), array.end(), [](const auto &each) {
        return Network::from(QJsonValue(each).toString()).has_value();
    });
}

QList<Network> networks::from(const QJsonValue &value)
{
    QList<Network> result;
    const QJsonArray array = value.toArray();
    for (const auto &each : array) {
        if (const auto network = Network::from(QJsonValue(each).toString()))
            result += *network;
    }
    return result;
}
