// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "plugin/kit/pluginloader.h"

#include "plugin/iinputplugin.h"

#include <QtCore/QCoreApplication>
#include <QtCore/QDir>
#include <QtCore/QFileInfo>

namespace inputkit {
namespace {

// The name under which the library registers its creator.
QString creatorName()
{
    return QStringLiteral("TcpInputPlugin2");
}

// Where the library may be: in the tree where the program was built or installed, and where this
// was to be installed.
QStringList candidates(const QString &hint)
{
    const QDir program(QCoreApplication::applicationDirPath());
    QStringList files;
    for (const char *folder : {LIBRARY_FROM_PROGRAM, "../lib", "../tcpinput", "."})
        files += program.filePath(QLatin1String(folder) + QStringLiteral("/libtcpinputplugin2.so"));
    if (!hint.isEmpty())
        files += hint;
    files += QStringLiteral(LIBRARY_DIR "/libtcpinputplugin2.so");
    return files;
}

// The first of them that is there; otherwise its plain name, which the system looks up.
QString findLibrary(const QString &hint)
{
    const QStringList files = candidates(hint);
    for (const QString &file : files) {
        if (QFileInfo::exists(file))
            return QFileInfo(file).canonicalFilePath();
    }
    return QStringLiteral("tcpinputplugin2");
}

} // namespace

PluginLoader::~PluginLoader()
{
    qDeleteAll(creators);
}

bool PluginLoader::load(const QString &file, EntryPoint entry, const QString &hint)
{
    library.setFileName(file.isEmpty() ? findLibrary(hint) : file);
    if (!library.load()) {
        error = library.errorString();
        return false;
    }
    if (!resolve(entry)) {
        error = QStringLiteral("%1 is no input plugin: it has no such entry point")
                        .arg(library.fileName());
        return false;
    }
    return true;
}

bool PluginLoader::resolve(EntryPoint entry)
{
    if (entry == EntryPoint::Create) {
        createPlugin = reinterpret_cast<CreatePluginFunction>(library.resolve("create"));
        return createPlugin;
    }

    const auto registerPlugin =
            reinterpret_cast<RegisterPluginFunction>(library.resolve("registerPlugin"));
    if (!registerPlugin)
        return false;
    registerPlugin(creators);
    return creators.value(creatorName());
}

std::unique_ptr<IInputPlugin> PluginLoader::create(const QJsonObject &config) const
{
    if (createPlugin)
        return std::unique_ptr<IInputPlugin>(createPlugin(nullptr, config));

    std::unique_ptr<IInputPlugin> plugin(creators.value(creatorName())->create());
    plugin->setConfig(config);
    return plugin;
}

} // namespace inputkit
