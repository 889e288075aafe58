// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include "tcpinput/connection/acceptlimits.h"
#include "tcpinput/limits/limits.h"

#include <QtCore/QJsonObject>
#include <QtCore/QJsonValue>

#include <array>

/*!
    The keys of the object "limits", and the limits that they make.

    Thread: any; no shared state.
*/
namespace limitkeys {

//! All limits of a configuration.
struct Values
{
    Limits buffers;
    AcceptLimits connections;
};

struct Key
{
    const char *name;
    const char *type;
    const char *accepted; // values; with any other one start() fails
    bool (*isAccepted)(const QJsonValue &value);
    void (*read)(const QJsonValue &value, Values &values);
};

// All keys, sorted by name. The texts are those of docs/CONFIGURATION.md.
const std::array<Key, 10> &all();

// object: has only keys and values that are accepted.
Values valuesFrom(const QJsonObject &object);

} // namespace limitkeys
