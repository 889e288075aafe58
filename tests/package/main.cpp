// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include <plugin/factory.h>
#include <plugin/iinputplugin.h>

#include <QtCore/QCoreApplication>
#include <QtCore/QJsonObject>
#include <QtCore/QLibrary>
#include <QtCore/QTextStream>

#include <memory>

// Prints the lines that devices send. Arguments: the address and the port to listen on.
int main(int argc, char **argv)
{
    QCoreApplication application(argc, argv);
    const QStringList arguments = application.arguments();
    if (arguments.size() != 3)
        qFatal("usage: minimalhost ADDRESS PORT");

    QLibrary library(QStringLiteral(PLUGIN_FILE));
    const auto create = reinterpret_cast<CreatePluginFunction>(library.resolve("create"));
    if (!create)
        qFatal("%s", qPrintable(library.errorString()));

    const QJsonObject config{{QStringLiteral("ipAddr"), arguments.at(1)},
                             {QStringLiteral("port"), arguments.at(2).toInt()}};
    const std::unique_ptr<IInputPlugin> plugin(create(nullptr, config));
    plugin->pluginId = QStringLiteral("minimal");

    QTextStream out(stdout);
    QObject::connect(
            plugin.get(), &IInputPlugin::receivedData, plugin.get(),
            [&](const shared_parsedData &record) {
                const QByteArray buffer = record->getOriginalMessage();
                const qsizetype complete = buffer.lastIndexOf('\n') + 1;
                if (complete == 0)
                    return; // no answer: a discard that cuts nothing would be offered again at once
                out << buffer.left(complete) << Qt::flush;
                plugin->discard(static_cast<int>(complete), record->getPluginSubId());
            });
    if (!plugin->start() || plugin->getStatus().startsWith(QLatin1String("Listen: :0,")))
        qFatal("cannot listen");
    return application.exec();
}
