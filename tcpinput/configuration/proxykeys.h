// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include "tcpinput/connection/proxyrule.h"

#include <QtCore/QJsonObject>
#include <QtCore/QJsonValue>

#include <array>

/*!
    The keys of the object "proxyProtocol", and the rule that they make.

    Thread: any; no shared state.
*/
namespace proxykeys {

struct Key
{
    const char *name;
    const char *accepted; // values
    bool (*isAccepted)(const QJsonValue &value);
};

// All keys, sorted by name.
const std::array<Key, 3> &all();

// Whether it has what a rule cannot do without; the values are not looked at.
bool isRule(const QJsonValue &value);

// Of an object all of whose values are accepted.
ProxyRule ruleFrom(const QJsonObject &object);

} // namespace proxykeys
