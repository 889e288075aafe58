// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include "host/configuration.h"
#include "host/counters.h"
#include "host/exitcodes.h"
#include "host/messagereader.h"
#include "host/options.h"
#include "host/output.h"
#include "host/trafficrecorder.h"
#include "plugin/kit/pluginloader.h"

#include <QtCore/QObject>
#include <QtCore/QTimer>

#include <memory>

class IInputPlugin;

namespace host {

class SignalNotifier;

/*!
    The host: loads the library, runs one plugin at a time, and answers it.

    Each plugin is started only once. A restarted plugin keeps the signal connections of its former
    start, and would hand over each connection once per start. So a new configuration gets a new
    plugin.

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
    QString recordingRefusal() const;
    bool startRecording();
    ExitCode startPlugin(const QJsonObject &configuration);
    void connectPlugin();
    void stopPlugin();
    ExitCode fail(ExitCode code, const QString &text);

    void reload();
    bool renewCertificates();
    void noteCertificates(const QJsonObject &configuration);
    void replacePlugin(const QJsonObject &configuration);
    void reportStatus();
    QList<QString> answer(const QString &question) const;
    void handleOutputFailure(const QString &reason);

    void connectSignals(SignalNotifier &unixSignals);
    void finish();

    const Options &options;
    ConfigurationReader configurationReader;
    inputkit::PluginLoader loader;
    Counters counters;
    Output output;
    std::unique_ptr<TrafficRecorder> recorder; // null: nothing is recorded
    MessageReader reader;
    QTimer statusTimer;
    std::unique_ptr<IInputPlugin> plugin; // null only while none runs
    QJsonObject runningConfiguration; // of the plugin, or of the last one that listened
    QByteArray runningFiles; // what its certificates and keys were like
    ExitCode outcome = ExitOk;
};

} // namespace host
