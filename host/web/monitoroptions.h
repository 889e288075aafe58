// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include "host/web/webaddress.h"

#include <QtCore/QString>

#include <optional>

namespace host {

//! Who may look at the program from outside, as the command line says.
struct MonitorOptions
{
    std::optional<WebAddress> http; // nothing: no web server
    QString metricsFile; // empty: none

    bool isOn() const { return http || !metricsFile.isEmpty(); }
};

// Whether the program was built with what a web server needs.
bool hasWebServer();

} // namespace host
