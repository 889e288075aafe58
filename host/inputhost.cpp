// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "host/inputhost.h"

#include "host/check/keychecks.h"
#include "host/logging.h"
#include "host/signalnotifier.h"
#include "host/sinks/makesink.h"
#include "host/tlschecks.h"
#include "plugin/cwrn.h"
#include "plugin/kit/defaults.h"

#include <QtCore/QCoreApplication>
#include <QtCore/QDateTime>

#include <chrono>
#include <utility>

namespace host {
namespace {

using inputkit::PluginRunner;

inputkit::PluginSettings pluginSettings(const Options &options)
{
    inputkit::PluginSettings settings;
    settings.library = options.pluginFile;
    settings.entryPoint = options.entryPoint;
    settings.pluginId = options.id;
    settings.logLevel = options.logLevel;
    settings.drainTime = std::chrono::seconds(options.drainSeconds);
    return settings;
}

ExitCode exitCodeOf(PluginRunner::Failure failure)
{
    switch (failure) {
    case PluginRunner::Failure::NoLibrary:
    case PluginRunner::Failure::WrongLibrary:
        return ExitNoLibrary;
    case PluginRunner::Failure::NotListening:
        return ExitNotListening;
    default:
        return ExitStartFailed;
    }
}

QJsonObject sslOf(const QJsonObject &configuration)
{
    return configuration.value(QLatin1String("ssl")).toObject();
}

// A status text without the lines of single connections, which are indented. At 15,000 connections
// they are 840 KB.
QString withoutConnections(const QString &status)
{
    QString result;
    for (const QString &line : status.split(QLatin1Char('\n'), Qt::SkipEmptyParts)) {
        if (!line.startsWith(QLatin1Char(' ')))
            result += line + QLatin1Char('\n');
    }
    return result;
}

} // namespace

InputHost::InputHost(const Options &commandLine)
    : options(commandLine),
      configurationReader(commandLine),
      sink(makeSink(commandLine.output, commandLine.format.framing, newEpoch())),
      watchers(commandLine, counters, *sink, runner),
      reader(commandLine.format, *sink, counters),
      runner(pluginSettings(commandLine), reader)
{
    reader.setMessageLimit(options.exitAfter);
    reader.setMaxUnfinished(options.maxUnfinished);
    connect(&reader, &MessageReader::answered, &runner, &PluginRunner::answer);
    connect(&reader, &MessageReader::finished, this, [] { QCoreApplication::quit(); });
    connect(&reader, &MessageReader::crowded, this,
            [this](bool isCrowded) { runner.setAccepting(!isCrowded); });
    connect(sink.get(), &Sink::failed, this, &InputHost::handleOutputFailure);
    connect(&statusTimer, &QTimer::timeout, this, &InputHost::reportStatus);
}

InputHost::~InputHost() = default;

int InputHost::run()
{
    if (!runner.load())
        return fail(ExitNoLibrary, runner.errorString());
    if (!readConfiguration())
        return ExitBadConfiguration;
    if (!sink->open())
        return fail(ExitOutputFailed, sink->errorString());
    if (!startRecording())
        return ExitRecordingFailed;
    if (!watchers.start(reader))
        return fail(ExitMonitorFailed, watchers.errorString());

    // Only now: until here a signal ends the program at once.
    const bool tellsLoss = options.drainSeconds > 0 || options.output.needsPositions();
    SignalNotifier unixSignals(tellsLoss ? &sink->unsafeMessages() : nullptr);
    connectSignals(unixSignals);
    if (const ExitCode code = tellStart(runner.start(configuration)))
        return code;
    watchers.tellServing(true);
    if (options.statusEverySeconds > 0)
        statusTimer.start(std::chrono::seconds(options.statusEverySeconds));

    QCoreApplication::exec();
    finish();
    return outcome;
}

bool InputHost::readConfiguration()
{
    QString error;
    if (!configurationReader.read()) {
        error = configurationReader.errorString();
    } else {
        configuration = withDefaults(configurationReader.configuration());
        error = tlsRefusal(configuration);
        if (error.isEmpty())
            error = positionsRefusal();
    }
    if (!error.isEmpty()) {
        fail(ExitBadConfiguration, error);
        return false;
    }
    for (const QString &warning : keyWarnings(configuration))
        CWRN(QtWarningMsg, QStringLiteral("%1"), warning);
    return true;
}

// Empty: positions and ends are told, or nobody needs them.
QString InputHost::positionsRefusal() const
{
    if (inputkit::stampsOffers(configuration) && inputkit::tellsEnds(configuration))
        return {};
    if (options.output.needsPositions())
        return QStringLiteral("A store needs \"offsets\" and \"ends\": it knows messages by their "
                              "places in their connections");
    if (options.recording.file.isEmpty())
        return {};
    return QStringLiteral(
            "--record needs \"offsets\" and \"ends\": without them nobody knows which "
            "bytes are new, and when a connection is over");
}

// Likewise.
bool InputHost::startRecording()
{
    if (options.recording.file.isEmpty())
        return true;
    recorder = std::make_unique<inputkit::TrafficRecorder>(options.recording);
    if (!recorder->start()) {
        fail(ExitRecordingFailed, recorder->errorString());
        return false;
    }
    reader.addObserver(recorder.get());
    return true;
}

ExitCode InputHost::fail(ExitCode code, const QString &text)
{
    CWRN(QtCriticalMsg, QStringLiteral("%1"), text);
    return code;
}

ExitCode InputHost::tellStart(bool isListening)
{
    if (!isListening)
        return fail(exitCodeOf(runner.failure()), runner.errorString());
    noteCertificates();
    watchers.noteConfiguration();
    const inputkit::ListenStatus status = runner.listens();
    reader.setIdleTimeout(status.timeoutSeconds);
    CWRN(QtInfoMsg, QStringLiteral("Listening on %1 port %2"), status.address, status.port);
    const QString warning = plainTcpWarning(runner.configuration(), status.address);
    if (!warning.isEmpty())
        CWRN(QtWarningMsg, QStringLiteral("%1"), warning);
    return ExitOk;
}

// Asked for once more, by the other signal, it waits for no device.
void InputHost::stop()
{
    if (options.drainSeconds == 0 || std::exchange(draining, true)) {
        QCoreApplication::quit();
        return;
    }
    CWRN(QtInfoMsg, QStringLiteral("Stopping: devices are told within %1 s"), options.drainSeconds);
    watchers.tellDraining(std::chrono::seconds(options.drainSeconds)
                          + pluginSettings(options).closingTime);
    runner.drain();
}

void InputHost::reload()
{
    if (draining) {
        CWRN(QtWarningMsg, QStringLiteral("Configuration not read: the program is stopping"));
        return;
    }
    watchers.tellReloading();
    watchers.tellServing(tryReload());
}

bool InputHost::tryReload()
{
    if (!readConfiguration()) {
        CWRN(QtWarningMsg, QStringLiteral("Configuration not changed"));
        return false;
    }
    if (configuration == runner.configuration()
        && fingerprintOfFiles(sslOf(configuration)) != runningFiles)
        return renewCertificates();
    CWRN(QtInfoMsg, QStringLiteral("Restarting with a new configuration"));
    return replacePlugin();
}

// Warns of what is wrong with them.
void InputHost::noteCertificates()
{
    const QJsonObject ssl = sslOf(runner.configuration());
    const QStringList warnings = certificateWarnings(ssl, QDateTime::currentDateTimeUtc());
    for (const QString &warning : warnings)
        CWRN(QtWarningMsg, QStringLiteral("%1"), warning);
    runningFiles = fingerprintOfFiles(ssl);
}

bool InputHost::renewCertificates()
{
    const bool renewed = runner.renewCertificates();
    if (renewed)
        watchers.noteConfiguration();
    else
        CWRN(QtWarningMsg, QStringLiteral("Certificates not changed"));
    noteCertificates();
    return renewed;
}

bool InputHost::replacePlugin()
{
    const ExitCode code = tellStart(runner.reload(configuration));
    if (code == ExitOk)
        return true;
    if (runner.listens().isListening()) {
        CWRN(QtWarningMsg, QStringLiteral("Going on with the old configuration"));
        return false;
    }
    outcome = fail(code, QStringLiteral("The old configuration does not work any more, either"));
    QCoreApplication::quit();
    return false;
}

void InputHost::reportStatus()
{
    QString status = runner.status();
    if (status.isEmpty())
        return;
    status.replace(QLatin1String("\r\n"), QLatin1String("\n"));
    if (!options.statusConnections)
        status = withoutConnections(status);
    report(counters.longLine() + QLatin1Char('\n') + status);
}

void InputHost::handleOutputFailure(const QString &reason)
{
    outcome = fail(ExitOutputFailed, reason);
    QCoreApplication::quit();
}

void InputHost::connectSignals(SignalNotifier &unixSignals)
{
    connect(&unixSignals, &SignalNotifier::stopRequested, this, &InputHost::stop);
    connect(&runner, &PluginRunner::drained, this, [] { QCoreApplication::quit(); });
    connect(&unixSignals, &SignalNotifier::statusRequested, this, &InputHost::reportStatus);
    connect(&unixSignals, &SignalNotifier::reopenRequested, sink.get(), &Sink::reopen);
    connect(&unixSignals, &SignalNotifier::reloadRequested, this, [this, &unixSignals] {
        // Stopping may process events; one reload at a time.
        unixSignals.setEnabled(false);
        reload();
        unixSignals.setEnabled(true);
    });
}

void InputHost::save()
{
    const qint64 unsafe = sink->finish(std::chrono::seconds(options.saveWithinSeconds));
    if (unsafe > 0)
        outcome = fail(ExitOutputFailed,
                       QStringLiteral("%1 messages are not safe after %2 s")
                               .arg(unsafe)
                               .arg(options.saveWithinSeconds));
}

void InputHost::finish()
{
    watchers.tellStopping();
    statusTimer.stop();
    runner.stop();
    if (recorder)
        recorder->finish();
    save();
    sink->summarize(counters.line());
    report(counters.longLine() + QLatin1Char('\n'));
}

} // namespace host
