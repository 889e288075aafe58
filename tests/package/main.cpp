// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include <plugin/factory.h>
#include <plugin/iinputplugin.h>

#include <QtCore/QCoreApplication>
#include <QtCore/QJsonObject>
#include <QtCore/QLibrary>
#include <QtCore/QSocketNotifier>
#include <QtCore/QTextStream>

#include <csignal>
#include <memory>
#include <sys/signalfd.h>

// Prints the lines that devices send, until SIGINT or SIGTERM ends it. Arguments: the address and
// the port to listen on.
int main(int argc, char **argv)
{
    // Other threads inherit the mask, so the signals are blocked first. A descriptor reports them.
    sigset_t endings;
    sigemptyset(&endings);
    sigaddset(&endings, SIGINT);
    sigaddset(&endings, SIGTERM);
    sigprocmask(SIG_BLOCK, &endings, nullptr);

    QCoreApplication application(argc, argv);
    const QStringList arguments = application.arguments();
    if (arguments.size() != 3)
        qFatal("usage: minimalhost ADDRESS PORT");
    QSocketNotifier ending(signalfd(-1, &endings, SFD_CLOEXEC), QSocketNotifier::Read);
    QObject::connect(&ending, &QSocketNotifier::activated, &application, &QCoreApplication::quit);

    QLibrary library(QStringLiteral(PLUGIN_FILE));
    const auto create = reinterpret_cast<CreatePluginFunction>(library.resolve("create"));
    if (!create)
        qFatal("%s", qPrintable(library.errorString()));

    QTextStream out(stdout); // before the plugin, whose destructor delivers the last records
    const QJsonObject config{{QStringLiteral("ipAddr"), arguments.at(1)},
                             {QStringLiteral("port"), arguments.at(2).toInt()}};
    const std::unique_ptr<IInputPlugin> plugin(create(nullptr, config));
    plugin->pluginId = QStringLiteral("minimal");
    QObject::connect(
            plugin.get(), &IInputPlugin::receivedData, plugin.get(),
            [&out, input = plugin.get()](const shared_parsedData &record) {
                const QByteArray buffer = record->getOriginalMessage();
                const qsizetype complete = buffer.lastIndexOf('\n') + 1;
                if (complete == 0)
                    return; // no answer: a discard that cuts nothing would be offered again at once
                out << buffer.left(complete) << Qt::flush;
                input->discard(static_cast<int>(complete), record->getPluginSubId());
            });
    if (!plugin->start() || plugin->getStatus().startsWith(QLatin1String("Listen: :0,")))
        qFatal("cannot listen");
    return application.exec();
}
