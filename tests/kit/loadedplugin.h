// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include "plugin/factory.h"
#include "plugin/iinputplugin.h"
#include "testaddress.h"

#include <QtCore/QJsonObject>
#include <QtCore/QLibrary>

#include <memory>

//! The built library, or another with the same entry points, loaded as a host loads it.
class LoadedLibrary
{
public:
    explicit LoadedLibrary(const QString &file = QStringLiteral(PLUGIN_FILE)) : library(file) {}

    std::unique_ptr<IInputPlugin> create(const QJsonObject &config)
    {
        const auto function = reinterpret_cast<CreatePluginFunction>(library.resolve("create"));
        if (!function)
            qFatal("%s", qPrintable(library.errorString()));
        std::unique_ptr<IInputPlugin> plugin(function(nullptr, config));
        plugin->pluginId = QStringLiteral("t");
        return plugin;
    }
    bool unload() { return library.unload(); }

private:
    QLibrary library;
};

// Plain TCP on the given port of the address that belongs to this test process.
inline QJsonObject tcpConfig(quint16 port, const QHostAddress &address = testAddress())
{
    return {{QStringLiteral("ipAddr"), address.toString()}, {QStringLiteral("port"), port}};
}

inline bool isListening(IInputPlugin &plugin)
{
    return !plugin.getStatus().startsWith(QLatin1String("Listen: :0,"));
}
