// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

// Prints the lines that devices send. SIGHUP reads the configuration anew; SIGINT and SIGTERM end
// the program when everything that was read is printed. Argument: a file with the plugin's
// configuration.

#include "unixsignals.h"

#include <plugin/kit/inputsession.h>

#include <QtCore/QCoreApplication>
#include <QtCore/QFile>
#include <QtCore/QJsonDocument>

#include <cstdio>
#include <optional>

namespace {

// Nothing, with a warning, if it cannot be read or is no JSON object. An empty configuration would
// listen on all addresses, without TLS.
std::optional<QJsonObject> readConfiguration(const QString &name)
{
    QFile file(name);
    if (!file.open(QIODevice::ReadOnly)) {
        qWarning("%s: %s", qPrintable(name), qPrintable(file.errorString()));
        return std::nullopt;
    }
    QJsonParseError error;
    const QJsonDocument document = QJsonDocument::fromJson(file.readAll(), &error);
    if (!document.isObject()) {
        qWarning("%s: no JSON object: %s", qPrintable(name), qPrintable(error.errorString()));
        return std::nullopt;
    }
    return document.object();
}

void tellWhere(const inputkit::InputSession &session)
{
    qInfo("listening on %s port %d", qPrintable(session.address()), session.port());
}

void reload(inputkit::InputSession &session, const QString &file)
{
    const auto configuration = readConfiguration(file);
    if (!configuration)
        return;
    if (!session.reload(*configuration))
        qWarning("not reloaded: %s", qPrintable(session.errorString()));
    if (!session.isListening()) // not even with the old configuration
        QCoreApplication::exit(1);
    else
        tellWhere(session);
}

} // namespace

int main(int argc, char **argv)
{
    UnixSignals unixSignals{SIGINT, SIGTERM, SIGHUP};
    QCoreApplication application(argc, argv);
    if (argc != 2)
        qFatal("usage: reloading FILE");
    const QString file = QCoreApplication::arguments().at(1);

    const auto configuration = readConfiguration(file);
    if (!configuration)
        return 1;

    inputkit::InputSettings settings;
    settings.handlers.message = [](const inputkit::InputMessage &message) {
        std::fwrite(message.bytes.data(), 1, size_t(message.bytes.size()), stdout);
        std::fputc('\n', stdout);
        std::fflush(stdout);
    };
    settings.handlers.end = [](const inputkit::InputEnd &end) {
        qInfo("%s: %s", qPrintable(end.origin.source), qPrintable(end.reason));
    };
    inputkit::InputSession session(settings);
    if (!session.start(*configuration))
        qFatal("%s", qPrintable(session.errorString()));
    tellWhere(session);

    unixSignals.connect(&application, [&session, file](int number) {
        if (number == SIGHUP)
            reload(session, file);
        else
            QCoreApplication::quit();
    });
    return QCoreApplication::exec(); // the session's destructor prints what is left
}
