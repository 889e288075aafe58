// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include <QtCore/QJsonObject>
#include <QtCore/QJsonValue>

#include <array>

/*!
    The keys of a TLS configuration, and which values have the effect that is meant.

    Thread: any; no shared state.
*/
namespace tls {

//! What a bad value does: the one in docs/CONFIGURATION.md, or start() fails.
enum class Bad : bool { Ignored, Refused };

struct Key
{
    const char *name;
    const char *accepted; // values
    // Reads the file that the value names, if it does. True for one that cannot be opened: that
    // fails by itself, with a line of its own.
    bool (*isAccepted)(const QJsonValue &value);
    Bad bad = Bad::Ignored;
};

// All keys, sorted by name.
const std::array<Key, 21> &keys();

// Whether a value of the key that is not accepted makes start() fail. strict: whether the
// configuration refuses bad values of all keys. False for a key pair's private half if other keys
// of the object say how to read it: readExtensions() then judges it.
bool refusesBad(const Key &key, const QJsonObject &object, bool strict);

} // namespace tls
