// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include "host/options.h"

#include <QtCore/QJsonObject>
#include <QtCore/QStringList>

/*!
    What --print-config and --print-schema print.

    Thread: any; no shared state.
*/
namespace host {

// A line for each key, also of objects: its value, and where that comes from: the name of the file,
// "--set", "inputhost" for this program's defaults, or "default" for the plugin's. Keys without any
// value are left out. Long texts are only described: they may be a private key. given: what file
// and command line say together.
QStringList valuesInForce(const QJsonObject &given, const Options &options,
                          const QString &fileName);

// The configuration's schema, with this program's defaults.
QJsonObject configurationSchema();

} // namespace host
