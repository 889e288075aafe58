// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

// Prints the lines that devices send. Arguments: the address and the port to listen on.

#include <plugin/kit/inputsession.h>

#include <QtCore/QCoreApplication>

#include <cstdio>

int main(int argc, char **argv)
{
    QCoreApplication application(argc, argv);
    const QStringList arguments = QCoreApplication::arguments();
    if (arguments.size() != 3)
        qFatal("usage: lines ADDRESS PORT");

    inputkit::InputSettings settings;
    settings.handlers.message = [](const inputkit::InputMessage &message) {
        const QByteArray line = message.origin.peer.toLatin1() + ' ' + message.bytes.toByteArray();
        std::fwrite(line.constData(), 1, size_t(line.size()), stdout);
        std::puts(message.partial ? " (cut off)" : "");
        std::fflush(stdout);
    };
    inputkit::InputSession session(settings);
    if (!session.start({{"ipAddr", arguments[1]}, {"port", arguments[2].toInt()}}))
        qFatal("%s", qPrintable(session.errorString()));
    return QCoreApplication::exec();
}
