// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "receiver.h"

#include <plugin/factory.h>

#include <QtCore/QCoreApplication>
#include <QtCore/QJsonObject>
#include <QtCore/QLibrary>

#include <cstdio>
#include <memory>

// Loads the plugin, has it listen on the address that is given, says what works, and ends.
int main(int argc, char **argv)
{
    QCoreApplication application(argc, argv);
    if (argc != 2)
        qFatal("usage: hostofparts ADDRESS");
    QLibrary library(QStringLiteral(PLUGIN_FILE));
    const auto create = reinterpret_cast<CreatePluginFunction>(library.resolve("create"));
    if (!create)
        qFatal("%s", qPrintable(library.errorString()));
    QObject *const made = create(
            nullptr,
            {{QStringLiteral("ipAddr"), QStringLiteral("127.0.0.1")}, {QStringLiteral("port"), 0}});
    const std::unique_ptr<IInputPlugin> plugin(qobject_cast<IInputPlugin *>(made));
    if (!plugin)
        qFatal("qobject_cast does not know the plugin");
    const Receiver receiver(*plugin);
    if (!plugin->start())
        qFatal("cannot start");
    std::puts("the host of parts loads the plugin");
    return 0;
}
