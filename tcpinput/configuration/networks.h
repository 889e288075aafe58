// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include "tcpinput/connection/network.h"

#include <QtCore/QJsonValue>
#include <QtCore/QList>

/*!
    Values that are lists of addresses and networks.

    Thread: any; no shared state.
*/
namespace networks {

// The text that tells what is accepted.
constexpr const char *accepted()
{
    return "an array of addresses and networks such as \"10.0.0.0/8\"";
}
// An array of at least one.
bool areAccepted(const QJsonValue &value);

// value: accepted.
QList<Network> from(const QJsonValue &value);

} // namespace networks
