// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

// Counts the lines that devices send, and records all that they bring. devicesim --replay plays the
// recording again, devicecat shows it. SIGINT and SIGTERM end the program.
//
// Arguments: the address and the port to listen on, and the recording's file.

#include "unixsignals.h"

#include <plugin/kit/inputsession.h>
#include <plugin/recording/trafficrecorder.h>

#include <QtCore/QCoreApplication>

#include <cstdio>

int main(int argc, char **argv)
{
    UnixSignals unixSignals{SIGINT, SIGTERM};
    QCoreApplication application(argc, argv);
    const QStringList arguments = QCoreApplication::arguments();
    if (arguments.size() != 4)
        qFatal("usage: recording ADDRESS PORT FILE");

    inputkit::RecordingOptions recording;
    recording.file = arguments[3];
    inputkit::TrafficRecorder recorder(recording); // before the session, which uses it to its end
    if (!recorder.start())
        qFatal("%s", qPrintable(recorder.errorString()));

    int lines = 0;
    inputkit::InputSettings settings;
    settings.handlers.message = [&lines](const inputkit::InputMessage &) { ++lines; };
    settings.observer = &recorder;
    {
        inputkit::InputSession session(settings);
        if (!session.start({{"ipAddr", arguments[1]}, {"port", arguments[2].toInt()}}))
            qFatal("%s", qPrintable(session.errorString()));
        unixSignals.connect(&application, [](int) { QCoreApplication::quit(); });
        QCoreApplication::exec();
    }
    std::printf("%d lines\n", lines);
}
