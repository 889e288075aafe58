// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include "tcpinput/limits/limits.h"

#include <QtCore/QJsonObject>
#include <QtCore/QJsonValue>

#include <array>

//! One key of the object "limits".
struct LimitKey
{
    const char *name;
    const char *type;
    const char *accepted; // values; with any other one start() fails
    bool (*isAccepted)(const QJsonValue &value);
    void (*read)(const QJsonValue &value, Limits &limits);
};

// All keys, sorted by name. The texts are those of docs/CONFIGURATION.md.
const std::array<LimitKey, 3> &limitKeys();

// object: has only keys and values that are accepted.
Limits limitsFrom(const QJsonObject &object);
