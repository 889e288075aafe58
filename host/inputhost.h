// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include "host/configuration.h"
#include "host/counters.h"
#include "host/exitcodes.h"
#include "host/messagereader.h"
#include "host/options.h"
#include "host/sinks/sink.h"
#include "host/watchers.h"
#include "plugin/kit/pluginrunner.h"
#include "plugin/recording/trafficrecorder.h"

#include <QtCore/QObject>
#include <QtCore/QTimer>

#include <memory>

namespace host {

class SignalNotifier;

/*!
    The program: has the kit run the plugin, gives what devices send to a sink, and does what
    signals ask for.

    Thread: the main thread; the plugin lives there, too.
*/
class InputHost : public QObject
{
    Q_OBJECT

public:
    // commandLine: outlives the host.
    explicit InputHost(const Options &commandLine);
    ~InputHost() override;

    // Runs the event loop until a signal, the message limit or a failure ends it. Returns the
    // program's exit code.
    int run();

private:
    // False, with an error line, if it cannot be read or is refused.
    bool readConfiguration();
    QString positionsRefusal() const;
    bool startRecording();
    ExitCode fail(ExitCode code, const QString &text);

    // isListening: what the runner has returned. If it is false, an error line says why.
    ExitCode tellStart(bool isListening);
    void reload();
    bool tryReload();
    bool renewCertificates();
    void stop();
    void noteCertificates();
    bool replacePlugin();
    void reportStatus();
    void handleOutputFailure(const QString &reason);
    void save();

    void connectSignals(SignalNotifier &unixSignals);
    void finish();

    const Options &options;
    ConfigurationReader configurationReader;
    Counters counters;
    const std::unique_ptr<Sink> sink;
    std::unique_ptr<inputkit::TrafficRecorder> recorder; // null: nothing is recorded
    Watchers watchers; // see what is read
    MessageReader reader;
    inputkit::PluginRunner runner;
    QTimer statusTimer;
    QJsonObject configuration; // complete, as it was read last
    QByteArray runningFiles; // what the certificates and keys of the plugin were like
    bool draining = false; // a signal has asked for the end, and devices are let go first
    ExitCode outcome = ExitOk;
};

} // namespace host
