// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include <QtCore/QJsonObject>
#include <QtCore/QString>

#include <array>

// What carries out TLS: the values of the key "engine". Devices and hosts must not notice which one
// it is, so tests of TLS have a row for each.
inline constexpr std::array<const char *, 2> TlsEngines{"qt", "own"};

// An "ssl" object that chooses the engine. Empty: without the key.
inline QJsonObject withEngine(QJsonObject tls, const QString &engine)
{
    if (!engine.isEmpty())
        tls.insert(QStringLiteral("engine"), engine);
    return tls;
}
