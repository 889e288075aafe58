// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include <QtCore/QJsonValue>

#include <array>

/*!
    The keys of a TLS configuration, and which values have the effect that is meant.

    Thread: any; no shared state.
*/
namespace tls {

struct Key
{
    const char *name;
    const char *accepted; // values
    // Reads the file that the value names, if it does. True for one that cannot be opened: that
    // fails by itself, with a line of its own.
    bool (*isAccepted)(const QJsonValue &value);
};

// All keys, sorted by name.
const std::array<Key, 9> &keys();

} // namespace tls
