// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "host/watchers.h"

#include "host/tlschecks.h"
#include "host/web/health.h"

namespace host {
namespace {

// 0: no such limit.
qint64 limitOf(const QJsonObject &configuration, const char *key)
{
    const QJsonObject limits = configuration.value(QLatin1String("limits")).toObject();
    return limits.value(QLatin1String(key)).toInteger();
}

} // namespace

Watchers::Watchers(const Options &commandLine, const Counters &messageCounters, Sink &messageSink,
                   const inputkit::PluginRunner &pluginRunner)
    : options(commandLine),
      counters(messageCounters),
      sink(messageSink),
      runner(pluginRunner)
{}

bool Watchers::start(MessageReader &reader)
{
    if (!options.monitor.isOn() && !manager.isOn())
        return true;
    monitor = std::make_unique<Monitor>(options.monitor, [this] { return describe(); });
    connect(monitor.get(), &Monitor::published, this, &Watchers::tellManager);
    if (auto *const observer = monitor->observer(sink.acknowledges())) {
        reader.addObserver(observer);
        connect(&sink, &Sink::safe, monitor.get(), &Monitor::noteSafe);
    }
    return monitor->start();
}

void Watchers::noteConfiguration()
{
    certificates = certificateEnds(runner.configuration().value(QLatin1String("ssl")).toObject());
    configured = QDateTime::currentDateTimeUtc();
}

void Watchers::tellReloading()
{
    manager.tellReloading();
}

// Who asks from now on sees the present state.
void Watchers::tellServing(bool configurationWorked)
{
    lastReloadWorked = configurationWorked;
    if (monitor)
        monitor->publish();
    manager.tellReady();
}

void Watchers::tellDraining(std::chrono::milliseconds atMost)
{
    draining = true;
    tellEnd(atMost);
}

void Watchers::tellEnd(std::chrono::milliseconds untilFinish)
{
    constexpr std::chrono::seconds ForAllElse(60);
    manager.tellStopping(untilFinish + std::chrono::seconds(options.saveWithinSeconds)
                         + ForAllElse);
}

Snapshot Watchers::describe() const
{
    Snapshot now;
    const inputkit::ListenStatus status = runner.listens();
    const QJsonObject running = runner.configuration();
    now.address = status.address;
    now.port = status.port;
    now.isTls = running.contains(QLatin1String("ssl"));
    now.isAccepting = runner.isAccepting();
    now.isDraining = draining;
    now.plugin = runner.counters();
    now.maxConnections = limitOf(running, "maxConnections");
    now.maxConnectionsPerAddress = limitOf(running, "maxConnectionsPerAddress");
    now.connectionBuffer = limitOf(running, "connectionBuffer");
    now.totalBuffer = limitOf(running, "totalBuffer");
    now.messages = counters.messages;
    now.messageBytes = counters.bytes;
    now.partial = counters.partial;
    now.tooLong = counters.tooLong;
    now.offers = counters.offers;
    now.sink = nameOf(options.output.kind);
    now.sinkConnected = sink.isConnected();
    now.sinkFull = sink.isFull();
    now.unsafeMessages = sink.unsafeMessages();
    now.certificates = certificates;
    now.configured = configured;
    now.lastReloadWorked = lastReloadWorked;
    return now;
}

// Of a worker that stands still, the manager hears by our silence.
void Watchers::tellManager(const Snapshot &snapshot)
{
    if (reasonsNotAlive(snapshot, snapshot.taken).isEmpty())
        manager.feedWatchdog();
    if (snapshot.plugin)
        manager.tellStatus(QByteArray::number(snapshot.plugin->open) + " connections, "
                           + QByteArray::number(snapshot.messages) + " messages");
}

} // namespace host
