// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include "plugin/factory.h"

#include <QtCore/QJsonObject>
#include <QtCore/QLibrary>
#include <QtCore/QString>

#include <memory>

class IInputPlugin;

namespace host {

//! The two ways in which the library gives plugins away. They make the same objects.
enum class EntryPoint {
    Create, // a function that makes plugins
    RegisterPlugin, // a function that adds an object that makes plugins to the host's map
};

/*!
    Loads the library at run time and makes plugins.

    The library stays loaded when this object goes.

    Thread: any one; plugins belong to the thread that makes them.
*/
class PluginLoader
{
public:
    PluginLoader() = default;
    ~PluginLoader();
    Q_DISABLE_COPY(PluginLoader)

    // file: empty to look for the library near the program. False if it cannot be loaded or does
    // not have the entry point; errorString() tells.
    bool load(const QString &file, EntryPoint entry);
    QString errorString() const { return error; }
    QString fileName() const { return library.fileName(); }

    // Requires a successful load().
    std::unique_ptr<IInputPlugin> create(const QJsonObject &config) const;

private:
    bool resolve(EntryPoint entry);

    QLibrary library;
    CreatePluginFunction createPlugin = nullptr;
    InputPluginCreators creators; // in use if there is no createPlugin
    QString error;
};

} // namespace host
