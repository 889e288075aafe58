// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include "host/options.h"

#include <QtCore/QJsonObject>

namespace host {

//! Reads the plugin's configuration: the file, if any, and what the command line sets over it.
class ConfigurationReader
{
public:
    explicit ConfigurationReader(const Options &commandLine) : options(commandLine) {}

    // False if the configuration cannot be read, is not JSON, or is not an object; errorString()
    // says why. Standard input can be read only once.
    bool read();

    QJsonObject configuration() const { return object; }
    QString errorString() const { return error; }

private:
    bool readFile(QByteArray &content);
    bool parse(const QByteArray &content);
    bool isStandardInput() const;
    QString sourceName() const;
    bool fail(const QString &text);

    const Options &options;
    QJsonObject object; // of the last successful read()
    QString error;
    bool inputIsRead = false;
};

} // namespace host
