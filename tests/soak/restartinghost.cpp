// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "restartinghost.h"

#include "host/configuration.h"
#include "host/exitcodes.h"
#include "host/logging.h"
#include "host/signalnotifier.h"
#include "host/sinks/makesink.h"
#include "plugin/iinputplugin.h"
#include "plugin/kit/listenstatus.h"

#include <QtCore/QCoreApplication>

#include <malloc.h>
#include <unistd.h>

using namespace host;

namespace {
constexpr int MostStarts = 8; // of one plugin object
// The number is larger than that of connections with offers at the same time. It is small enough to
// be reached in the first cycle.
constexpr ExactOffers::Limits Remembered{std::chrono::minutes(1), 500};
} // namespace

RestartingHost::RestartingHost(const Options &commandLine)
    : options(commandLine),
      sink(makeSink(commandLine.output, commandLine.format.framing, newEpoch())),
      reader(commandLine.format, *sink, counters, Remembered)
{}

RestartingHost::~RestartingHost() = default;

int RestartingHost::run()
{
    ConfigurationReader configurationReader(options);
    if (!loader.load(options.pluginFile, options.entryPoint))
        return ExitNoLibrary;
    if (!configurationReader.read())
        return ExitBadConfiguration;
    configuration = configurationReader.configuration();
    configuration.insert(QStringLiteral("offsets"), true);

    SignalNotifier unixSignals;
    connect(&unixSignals, &SignalNotifier::stopRequested, this, [] { QCoreApplication::quit(); });
    connect(&unixSignals, &SignalNotifier::reloadRequested, this, &RestartingHost::restart);
    connect(&unixSignals, &SignalNotifier::statusRequested, this, [this] {
        ::malloc_trim(0);
        report(counters.longLine() + QLatin1Char('\n'));
    });

    makePlugin();
    if (!startPlugin())
        return ExitNotListening;
    const int outcome = QCoreApplication::exec();
    removePlugin();
    sink->finish(std::chrono::seconds(options.saveWithinSeconds));
    sink->summarize(counters.line());
    return outcome;
}

void RestartingHost::makePlugin()
{
    plugin = loader.create(configuration);
    plugin->pluginId = options.id;
    starts = 0;
    connect(plugin.get(), &IInputPlugin::receivedData, &reader, &MessageReader::receive);
    connect(&reader, &MessageReader::answered, plugin.get(), &IInputPlugin::discard);
}

bool RestartingHost::startPlugin()
{
    ++starts;
    if (!plugin->start())
        return false;
    const auto status = inputkit::ListenStatus::parse(plugin->getStatus());
    reader.setIdleTimeout(status.timeoutSeconds);
    return status.isListening();
}

void RestartingHost::removePlugin()
{
    reader.setAnswering(false);
    plugin->stop();
    QCoreApplication::sendPostedEvents();
    plugin.reset();
    reader.forgetAll();
    reader.setAnswering(true);
}

// The last offers of connections that stop() has ended may arrive after the next start().
void RestartingHost::restart()
{
    if (starts < MostStarts) {
        plugin->stop();
    } else {
        removePlugin();
        makePlugin();
    }
    if (!startPlugin())
        QCoreApplication::exit(ExitNotListening);
}
