// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "host/configuration.h"

#include "plugin/kit/defaults.h"

#include <QtCore/QFile>
#include <QtCore/QJsonDocument>

#include <cstdio>

namespace host {

bool ConfigurationReader::read()
{
    QByteArray content = "{}";
    if (!options.configFile.isEmpty() && !readFile(content))
        return false;
    if (!parse(content))
        return false;

    object.remove(QLatin1String(SchemaKey)); // for editors
    for (const auto &[key, value] : options.settings)
        object.insert(key, value);
    return true;
}

bool ConfigurationReader::readFile(QByteArray &content)
{
    QFile file(options.configFile);
    const bool isInput = isStandardInput();
    if (isInput && inputIsRead)
        return fail(QStringLiteral("Standard input can be read once only"));

    inputIsRead = isInput;
    const bool isOpen =
            isInput ? file.open(stdin, QIODevice::ReadOnly) : file.open(QIODevice::ReadOnly);
    if (isOpen)
        content = file.readAll();
    if (file.error() != QFile::NoError)
        return fail(QStringLiteral("Cannot read %1: %2").arg(sourceName(), file.errorString()));
    return true;
}

bool ConfigurationReader::parse(const QByteArray &content)
{
    QJsonParseError parseError;
    const QJsonDocument document = QJsonDocument::fromJson(content, &parseError);
    if (parseError.error != QJsonParseError::NoError)
        return fail(QStringLiteral("%1 is not JSON: %2 at byte %3")
                            .arg(sourceName(), parseError.errorString())
                            .arg(parseError.offset));
    if (!document.isObject())
        return fail(QStringLiteral("%1 is not a JSON object").arg(sourceName()));

    object = document.object();
    return true;
}

bool ConfigurationReader::isStandardInput() const
{
    return options.configFile == QLatin1String("-");
}

QString ConfigurationReader::sourceName() const
{
    if (options.configFile.isEmpty())
        return QStringLiteral("the command line");
    return isStandardInput() ? QStringLiteral("standard input") : options.configFile;
}

bool ConfigurationReader::fail(const QString &text)
{
    error = text;
    return false;
}

// Whoever gives "limits" gives all of them: an operator who leaves one out wants none. Without
// "logPeers" the log does not say whose handshake fails.
QJsonObject withDefaults(const QJsonObject &configuration)
{
    constexpr int MiB = 1024 * 1024;
    const QJsonObject defaultLimits = {{QStringLiteral("connectionBuffer"), 1 * MiB},
                                       {QStringLiteral("totalBuffer"), 128 * MiB},
                                       {QStringLiteral("stalledTimeout"), 60}};
    const QString key = QStringLiteral("limits");
    QJsonObject complete = inputkit::withDefaults(configuration);
    const QString peersKey = QStringLiteral("logPeers");
    if (!configuration.contains(peersKey))
        complete.insert(peersKey, true);
    complete.insert(key, configuration.contains(key) ? configuration.value(key) : defaultLimits);
    return complete;
}

} // namespace host
