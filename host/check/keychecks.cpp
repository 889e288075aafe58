// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "host/check/keychecks.h"

#include "host/check/nearestkey.h"
#include "tcpinput/configuration/configuration.h"

#include <QtCore/QFileInfo>

#include <algorithm>

namespace host {
namespace {

// The plugin reads a pipe itself, once.
QJsonObject withoutPipes(QJsonObject configuration)
{
    const QString sslKey = QStringLiteral("ssl");
    if (!configuration.value(sslKey).isObject())
        return configuration;
    QJsonObject ssl = configuration.value(sslKey).toObject();
    for (const char *key : {"CAFile", "CertFile", "KeyFile"}) {
        const QFileInfo file(ssl.value(QLatin1String(key)).toString());
        if (file.exists() && !file.isFile())
            ssl.remove(QLatin1String(key));
    }
    configuration.insert(sslKey, ssl);
    return configuration;
}

QString guessAt(const Checker::Fault &fault)
{
    const QString nearest = fault.isUnknown ? nearestKey(fault.key) : QString();
    return nearest.isEmpty() ? QString() : QStringLiteral("Did you mean %1?").arg(nearest);
}

} // namespace

QList<Checker::Fault> keyFaults(const QJsonObject &configuration)
{
    return Configuration::faults(withoutPipes(configuration), true);
}

QString shown(const Checker::Fault &fault)
{
    const QString guess = guessAt(fault);
    return guess.isEmpty() ? fault.text : fault.text + QStringLiteral(". ") + guess;
}

QStringList keyWarnings(const QJsonObject &configuration)
{
    const bool isStrict = configuration.value(QLatin1String("strict")).toBool();
    const QList<Checker::Fault> told = Configuration::faults(withoutPipes(configuration), isStrict);
    QStringList warnings;
    for (const Checker::Fault &fault : keyFaults(configuration)) {
        const bool isTold = std::any_of(told.begin(), told.end(), [&fault](const auto &each) {
            return each.key == fault.key;
        });
        if (!isTold)
            warnings += QStringLiteral("Ignored in the configuration: %1").arg(shown(fault));
        else if (const QString guess = guessAt(fault); !guess.isEmpty())
            warnings += QStringLiteral("Unknown key %1. %2").arg(fault.key, guess);
    }
    return warnings;
}

} // namespace host
