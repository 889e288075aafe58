// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "host/inputhost.h"

#include "host/logging.h"
#include "host/signalnotifier.h"
#include "host/tlschecks.h"
#include "plugin/certificaterenewal.h"
#include "plugin/cwrn.h"
#include "plugin/iinputplugin.h"
#include "plugin/kit/listenstatus.h"

#include <QtCore/QCoreApplication>
#include <QtCore/QDateTime>

#include <chrono>
#include <initializer_list>
#include <utility>

#include <unistd.h>

namespace host {
namespace {

constexpr QLatin1String SslKey("ssl");

// Limits of the plugin's memory. What is in flight fits into the processor's caches, and a fast
// connection still has 200 MB/s.
QJsonObject defaultLimits()
{
    constexpr int MiB = 1024 * 1024;
    return {{QStringLiteral("connectionBuffer"), 1 * MiB},
            {QStringLiteral("totalBuffer"), 128 * MiB},
            {QStringLiteral("stalledTimeout"), 60}};
}

using Defaults = std::initializer_list<std::pair<const char *, QJsonValue>>;

// Adds the default of each key that the object does not have.
void addMissing(QJsonObject &object, const Defaults &defaults)
{
    for (const auto &[key, value] : defaults) {
        if (!object.contains(QLatin1String(key)))
            object.insert(QLatin1String(key), value);
    }
}

QJsonObject withDefaults(QJsonObject configuration)
{
    addMissing(configuration,
               {
                       {"ends", true}, // otherwise ends are guessed
                       {"limits", defaultLimits()}, // otherwise stalled output fills memory
                       {"offsets", true}, // otherwise messages may get lost or come twice
                       {"prompt", true}, // otherwise a message's last piece may wait
                       {"strict", true}, // otherwise a misspelt key is ignored
               });
    if (!configuration.value(SslKey).isObject())
        return configuration;
    QJsonObject ssl = configuration.value(SslKey).toObject();
    addMissing(ssl,
               {
                       {"Chain", true}, // otherwise devices lack intermediate certificates
                       {"KeyAlgorithm", QLatin1String("auto")}, // otherwise keys must be RSA
                       {"engine", QLatin1String("own")}, // otherwise handshakes hold this thread
               });
    configuration.insert(SslKey, ssl);
    return configuration;
}

// Whether the plugin tells when a connection is over.
bool tellsEnds(const QJsonObject &configuration)
{
    const QJsonValue value = configuration.value(QLatin1String("ends"));
    return value.toBool() || value.isString();
}

bool stampsOffers(const QJsonObject &configuration)
{
    return configuration.value(QLatin1String("offsets")).toBool();
}

} // namespace

InputHost::InputHost(const Options &commandLine)
    : options(commandLine),
      configurationReader(commandLine),
      output(commandLine.output, commandLine.format.framing, STDOUT_FILENO),
      reader(commandLine.format, output, counters)
{
    reader.setMessageLimit(options.exitAfter);
    reader.setMaxUnfinished(options.maxUnfinished);
    connect(&reader, &MessageReader::finished, this, [] { QCoreApplication::quit(); });
    connect(&output, &Output::failed, this, &InputHost::handleOutputFailure);
    connect(&statusTimer, &QTimer::timeout, this, &InputHost::reportStatus);
}

InputHost::~InputHost() = default;

int InputHost::run()
{
    if (!loader.load(options.pluginFile, options.entryPoint))
        return fail(ExitNoLibrary, loader.errorString());
    if (!readConfiguration())
        return ExitBadConfiguration;
    if (!startRecording())
        return ExitRecordingFailed;

    SignalNotifier unixSignals; // only now: until here a signal ends the program at once
    connectSignals(unixSignals);
    if (const ExitCode code = startPlugin(configurationReader.configuration()))
        return code;
    if (options.statusEverySeconds > 0)
        statusTimer.start(std::chrono::seconds(options.statusEverySeconds));

    QCoreApplication::exec();
    finish();
    return outcome;
}

bool InputHost::readConfiguration()
{
    const bool isRead = configurationReader.read();
    QString error = isRead ? tlsRefusal(configurationReader.configuration())
                           : configurationReader.errorString();
    if (error.isEmpty())
        error = recordingRefusal();
    if (error.isEmpty())
        return true;
    fail(ExitBadConfiguration, error);
    return false;
}

// Empty: it can be recorded, or nobody asks for that.
QString InputHost::recordingRefusal() const
{
    const QJsonObject complete = withDefaults(configurationReader.configuration());
    if (options.recording.file.isEmpty() || (stampsOffers(complete) && tellsEnds(complete)))
        return {};
    return QStringLiteral(
            "--record needs \"offsets\" and \"ends\": without them nobody knows which "
            "bytes are new, and when a connection is over");
}

bool InputHost::startRecording()
{
    if (options.recording.file.isEmpty())
        return true;
    recorder = std::make_unique<TrafficRecorder>(options.recording);
    if (!recorder->start()) {
        fail(ExitRecordingFailed, recorder->errorString());
        return false;
    }
    reader.setObserver(recorder.get());
    return true;
}

// The plugin must be made, named, connected and started in this order. If this fails, no plugin is
// left.
ExitCode InputHost::startPlugin(const QJsonObject &configuration)
{
    const QJsonObject complete = withDefaults(configuration);
    reader.setEndsTold(tellsEnds(complete));
    plugin = loader.create(complete);
    plugin->pluginId = options.id;
    connectPlugin();
    if (!plugin->start()) {
        stopPlugin();
        return fail(ExitStartFailed, QStringLiteral("The plugin refused to start"));
    }
    noteCertificates(complete);

    const auto status = inputkit::ListenStatus::parse(plugin->getStatus());
    if (!status.isListening()) {
        stopPlugin();
        return fail(ExitNotListening,
                    QStringLiteral("The plugin does not listen: is the port in use or only for "
                                   "root, or the address another machine's?"));
    }
    runningConfiguration = configuration;
    reader.setIdleTimeout(status.timeoutSeconds);
    CWRN(QtInfoMsg, QStringLiteral("Listening on %1 port %2"), status.address, status.port);
    return ExitOk;
}

void InputHost::connectPlugin()
{
    connect(plugin.get(), &IInputPlugin::receivedData, &reader, &MessageReader::receive);
    connect(&reader, &MessageReader::answered, plugin.get(), &IInputPlugin::discard);
    // Direct: otherwise the answer does not reach the plugin.
    connect(plugin.get(), &IInputPlugin::query, this, &InputHost::answer, Qt::DirectConnection);
}

// Offers are still on their way after stop(), and the plugin hands over the last of them while it
// is destroyed. So the posted offers are delivered first: the reader needs offers in the order in
// which they were made.
void InputHost::stopPlugin()
{
    reader.setAnswering(false);
    plugin->stop();
    QCoreApplication::sendPostedEvents();
    plugin.reset();
    reader.forgetAll();
    reader.setAnswering(true);
}

ExitCode InputHost::fail(ExitCode code, const QString &text)
{
    CWRN(QtCriticalMsg, QStringLiteral("%1"), text);
    return code;
}

void InputHost::reload()
{
    if (!readConfiguration()) {
        CWRN(QtWarningMsg, QStringLiteral("Configuration not changed"));
        return;
    }
    if (renewCertificates())
        return;
    CWRN(QtInfoMsg, QStringLiteral("Restarting with a new configuration"));
    replacePlugin(configurationReader.configuration());
}

// Warns of what is wrong with them.
void InputHost::noteCertificates(const QJsonObject &configuration)
{
    const QJsonObject ssl = configuration.value(SslKey).toObject();
    const QStringList warnings = certificateWarnings(ssl, QDateTime::currentDateTimeUtc());
    for (const QString &warning : warnings)
        CWRN(QtWarningMsg, QStringLiteral("%1"), warning);
    runningFiles = fingerprintOfFiles(ssl);
}

// False: more than the files of certificates and keys has changed, or the plugin cannot do it.
bool InputHost::renewCertificates()
{
    const QJsonObject configuration = configurationReader.configuration();
    const QByteArray files = fingerprintOfFiles(configuration.value(SslKey).toObject());
    if (configuration != runningConfiguration || files == runningFiles)
        return false;
    const auto answer = CertificateRenewal::ask(*plugin);
    if (answer == CertificateRenewal::Answer::Unknown)
        return false;
    if (answer == CertificateRenewal::Answer::Refused)
        CWRN(QtWarningMsg, QStringLiteral("Certificates not changed"));
    noteCertificates(withDefaults(configuration));
    return true;
}

void InputHost::replacePlugin(const QJsonObject &configuration)
{
    stopPlugin();
    if (startPlugin(configuration) == ExitOk)
        return;

    CWRN(QtWarningMsg, QStringLiteral("Restarting with the old configuration"));
    if (const ExitCode code = startPlugin(runningConfiguration)) {
        outcome = code;
        QCoreApplication::quit();
    }
}

void InputHost::reportStatus()
{
    if (!plugin)
        return;

    QString status = plugin->getStatus();
    status.replace(QLatin1String("\r\n"), QLatin1String("\n"));
    report(counters.longLine() + QLatin1Char('\n') + status);
}

// The plugin reports its threads if the level holds "debug". It wants no answer to other questions.
QList<QString> InputHost::answer(const QString &question) const
{
    if (question == QLatin1String("loglevel"))
        return {options.logLevel};
    return {};
}

void InputHost::handleOutputFailure(const QString &reason)
{
    outcome = fail(ExitOutputFailed,
                   QStringLiteral("Cannot write to standard output: %1").arg(reason));
    QCoreApplication::quit();
}

void InputHost::connectSignals(SignalNotifier &unixSignals)
{
    connect(&unixSignals, &SignalNotifier::stopRequested, this, [] { QCoreApplication::quit(); });
    connect(&unixSignals, &SignalNotifier::statusRequested, this, &InputHost::reportStatus);
    connect(&unixSignals, &SignalNotifier::reloadRequested, this, [this, &unixSignals] {
        // Stopping may process events; one reload at a time.
        unixSignals.setEnabled(false);
        reload();
        unixSignals.setEnabled(true);
    });
}

void InputHost::finish()
{
    statusTimer.stop();
    if (plugin)
        stopPlugin();
    if (recorder)
        recorder->finish();
    output.flush();
    output.writeCount(counters.line());
    output.flush();
    report(counters.longLine() + QLatin1Char('\n'));
}

} // namespace host
