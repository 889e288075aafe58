// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include "host/exitcodes.h"
#include "host/options.h"

#include <QtCore/QString>
#include <QtCore/QStringList>

namespace host {

/*!
    Looks at a configuration as --check-config does: its keys and values, its certificates and keys,
    and whether its port can be had. No plugin is loaded, and nobody can connect.

    Thread: one; it replaces Qt's message handler for a moment.
*/
class ConfigCheck
{
public:
    explicit ConfigCheck(const Options &commandLine) : options(commandLine) {}

    // ExitOk, or the code of the first fault.
    ExitCode run();

    // What was found, one line each: "error: ", "warning: " or "note: " comes first.
    QStringList lines() const { return findings; }

private:
    void checkKeys(const QJsonObject &configuration);
    void checkSetup(const QJsonObject &configuration);
    void checkCertificates(const QJsonObject &ssl);
    void tell(const char *kind, const QString &text);
    void refuse(ExitCode code, const QString &text);

    const Options &options;
    QStringList findings;
    ExitCode outcome = ExitOk;
};

} // namespace host
