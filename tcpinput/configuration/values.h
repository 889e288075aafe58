// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include <QtCore/QJsonValue>
#include <QtCore/QString>

/*!
    Which values a key of the configuration may have, and how a bad one is shown.

    Thread: any; no shared state, but the machine's network interfaces.
*/
namespace values {

bool isBoolean(const QJsonValue &value);
bool isText(const QJsonValue &value);
bool isObject(const QJsonValue &value);
// An integral number from 1 to 2147483647.
bool isPositive(const QJsonValue &value);
// An integral number from 1 to 9007199254740991: what JSON numbers hold exactly.
bool isSize(const QJsonValue &value);
// 1 to 65534.
bool isPort(const QJsonValue &value);
// An IPv4 or IPv6 address.
bool isAddress(const QJsonValue &value);
// The name of a network interface with an IPv4 address, or its number.
bool isInterface(const QJsonValue &value);

// Of a number of seconds that isPositive(); at most 2147483647, which is 24 days.
int msFromSeconds(const QJsonValue &value);

// For a log line: short, and on one line. A long text, an object, and an array with one of these or
// with many values are only described: they may be a private key.
QString shown(const QJsonValue &value);

} // namespace values
