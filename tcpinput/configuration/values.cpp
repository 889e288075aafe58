// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "tcpinput/configuration/values.h"

#include <QtCore/QJsonArray>
#include <QtCore/QJsonDocument>
#include <QtNetwork/QHostAddress>
#include <QtNetwork/QNetworkInterface>

#include <algorithm>
#include <limits>

namespace {

constexpr int HighestPort = 65534;
constexpr qint64 LargestSize = (qint64(1) << 53) - 1;
constexpr qsizetype LongestShownText = 40;
constexpr qsizetype LongestShownArray = 20;

QString shownArray(const QJsonArray &array)
{
    const auto isShort = [](const auto &each) {
        const QJsonValue value = each;
        return !value.isArray() && !value.isObject() && value.toString().size() <= LongestShownText;
    };
    if (array.size() > LongestShownArray || !std::all_of(array.begin(), array.end(), isShort))
        return QStringLiteral("an array of %1 values").arg(array.size());
    return QString::fromUtf8(QJsonDocument(array).toJson(QJsonDocument::Compact));
}

} // namespace

bool values::isBoolean(const QJsonValue &value)
{
    return value.isBool();
}

bool values::isText(const QJsonValue &value)
{
    return value.isString();
}

bool values::isObject(const QJsonValue &value)
{
    return value.isObject();
}

bool values::isPositive(const QJsonValue &value)
{
    return value.toInt() > 0;
}

bool values::isSize(const QJsonValue &value)
{
    return value.toInteger() > 0 && value.toInteger() <= LargestSize;
}

bool values::isPort(const QJsonValue &value)
{
    return isPositive(value) && value.toInt() <= HighestPort;
}

bool values::isAddress(const QJsonValue &value)
{
    return QHostAddress().setAddress(value.toString());
}

bool values::isInterface(const QJsonValue &value)
{
    const auto entries = QNetworkInterface::interfaceFromName(value.toString()).addressEntries();
    return std::any_of(entries.begin(), entries.end(), [](const QNetworkAddressEntry &entry) {
        return entry.ip().protocol() == QAbstractSocket::IPv4Protocol;
    });
}

int values::msFromSeconds(const QJsonValue &value)
{
    constexpr qint64 MsPerSecond = 1000;
    return static_cast<int>(
            std::min<qint64>(value.toInt() * MsPerSecond, std::numeric_limits<int>::max()));
}

QString values::shown(const QJsonValue &value)
{
    if (value.isObject())
        return QStringLiteral("an object");
    if (value.isArray())
        return shownArray(value.toArray());
    if (const qsizetype size = value.toString().size(); size > LongestShownText)
        return QStringLiteral("a text of %1 characters").arg(size);
    // A document is an array or an object.
    const QByteArray array = QJsonDocument(QJsonArray{value}).toJson(QJsonDocument::Compact);
    return QString::fromUtf8(array.sliced(1).chopped(1));
}
