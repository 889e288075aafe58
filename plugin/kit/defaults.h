// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include <QtCore/QJsonObject>

/*!
    What a host asks of the plugin unless its operator says otherwise.

    Thread: any; no shared state.
*/
namespace inputkit {

// The configuration with the keys that it lacks: "ends", "offsets", "prompt" and "strict" are true;
// "limits" has 1 MiB a connection and 128 MiB in all; "ssl", if the object is there, has "Chain",
// "KeyAlgorithm": "auto" and "engine": "own". Keys that are there keep their values, also those in
// the two objects.
QJsonObject withDefaults(QJsonObject configuration);

// Whether a plugin with this complete configuration tells the position of its offers.
bool stampsOffers(const QJsonObject &configuration);
// Whether it tells when a connection is over.
bool tellsEnds(const QJsonObject &configuration);

} // namespace inputkit
