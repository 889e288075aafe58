// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include "plugin/factory.h"

#include <QtCore/QJsonObject>
#include <QtCore/QLibrary>
#include <QtCore/QString>

#include <memory>

class IInputPlugin;

namespace inputkit {

//! The library's two entry points. Both make the same objects.
enum class EntryPoint {
    Create, // a function that makes plugins
    RegisterPlugin, // a function that puts a creator of plugins into the host's map
};

/*!
    Loads the library at run time and makes plugins.

    The library stays loaded when this object is destroyed.

    Thread: any one; plugins belong to the thread that makes them.
*/
class PluginLoader
{
public:
    PluginLoader() = default;
    ~PluginLoader();
    Q_DISABLE_COPY(PluginLoader)

    // file: empty to look for the library: near the program, then hint, then where this was to be
    // installed, then where the system looks. hint: a file that may be there; empty: none. False if
    // it cannot be loaded or does not have the entry point; errorString() says why.
    bool load(const QString &file, EntryPoint entry, const QString &hint = {});
    QString errorString() const { return error; }
    QString fileName() const { return library.fileName(); }

    // Requires a successful load().
    std::unique_ptr<IInputPlugin> create(const QJsonObject &config) const;

private:
    bool resolve(EntryPoint entry);

    QLibrary library;
    CreatePluginFunction createPlugin = nullptr;
    InputPluginCreators creators; // used if createPlugin is null
    QString error;
};

} // namespace inputkit
