// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include "host/options.h"

#include <QtCore/QJsonObject>

namespace host {

// A key of the file that is left out: editors look there for the name of a schema.
inline constexpr auto SchemaKey = "$schema";

// What this program asks of the plugin unless its operator says otherwise:
// inputkit::withDefaults(), and the "limits" that it documents.
QJsonObject withDefaults(const QJsonObject &configuration);

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
    // Of the file, for people.
    QString sourceName() const;

private:
    bool readFile(QByteArray &content);
    bool parse(const QByteArray &content);
    bool isStandardInput() const;
    bool fail(const QString &text);

    const Options &options;
    QJsonObject object; // of the last successful read()
    QString error;
    bool inputIsRead = false;
};

} // namespace host
