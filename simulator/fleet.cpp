// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "simulator/fleet.h"

#include "simulator/device.h"
#include "simulator/pace.h"
#include "simulator/replay.h"
#include "simulator/run.h"
#include "simulator/timetable.h"

namespace simulator {
namespace {

constexpr int StartsPerTurn = 64; // then the started devices get their turn
constexpr int StopGraceMs = 2000; // for peers that do not read

std::unique_ptr<Schedule> scheduleOf(const Run &run)
{
    if (run.replay)
        return std::make_unique<Timetable>(run.replay->connectTimes(), run.options.speed);
    return std::make_unique<Pace>(run.options.connectRate);
}

} // namespace

Fleet::Fleet(const Run &sharedRun) : run(sharedRun), schedule(scheduleOf(sharedRun))
{
    launchTimer.setSingleShot(true);
    graceTimer.setSingleShot(true);
    connect(&launchTimer, &QTimer::timeout, this, &Fleet::launch);
    connect(&graceTimer, &QTimer::timeout, this, &Fleet::abandon);
}

void Fleet::launch()
{
    schedule->start();
    for (int i = 0; i < StartsPerTurn && mayStart(); ++i) {
        const int waitMs = schedule->msUntil(started + 1);
        if (waitMs > 0)
            return launchTimer.start(waitMs);
        startDevice();
    }
    if (mayStart())
        launchTimer.start(0);
}

Fleet::Numbers Fleet::numbers() const
{
    quint64 messages = collected.messageCount();
    const QList<Device *> devices = findChildren<Device *>();
    for (const Device *device : devices)
        messages += device->openMessages();
    return {started, active, messages, collected.failureCount()};
}

QString Fleet::progress() const
{
    const Numbers now = numbers();
    return QStringLiteral("%1 devices started, %2 active; %3 messages\n")
            .arg(now.started)
            .arg(now.active)
            .arg(now.messages);
}

// Whether the numbers allow another device. The connect rate may still make it wait.
bool Fleet::mayStart() const
{
    const Options &options = run.options;
    if (options.tls.resume && started > 0 && collected.isEmpty())
        return false; // the others resume the session that the first one gets
    return !stopping && started < options.connections
            && (options.parallel == 0 || active < options.parallel)
            && (options.opening == 0 || opening < options.opening);
}

void Fleet::startDevice()
{
    ++started;
    ++active;
    ++opening;
    auto *device = new Device(this, run, started);
    connect(device, &Device::opened, this, &Fleet::onDeviceOpened);
    connect(device, &Device::connectionEnded, this, &Fleet::onConnectionEnded);
    connect(device, &Device::finished, this, &Fleet::onDeviceFinished);
    device->start();
}

void Fleet::onDeviceOpened()
{
    --opening;
    launchSoon();
}

void Fleet::onConnectionEnded(const ConnectionRecord &record)
{
    const bool isFirst = collected.isEmpty();
    collected.add(record);
    if (isFirst)
        launchSoon();
}

void Fleet::onDeviceFinished(Device *device)
{
    device->deleteLater();
    --active;
    if (active == 0 && (stopping || started == run.options.connections))
        Q_EMIT finished();
    else
        launchSoon();
}

void Fleet::launchSoon()
{
    if (mayStart() && !launchTimer.isActive())
        launchTimer.start(0);
}

void Fleet::stop()
{
    if (stopping)
        return abandon();
    stopping = true;
    launchTimer.stop();
    if (active == 0) {
        Q_EMIT finished();
        return;
    }
    graceTimer.start(StopGraceMs);
    const QList<Device *> devices = findChildren<Device *>();
    for (Device *device : devices)
        device->stop();
}

void Fleet::abandon()
{
    const QList<Device *> devices = findChildren<Device *>();
    for (Device *device : devices)
        device->abandon();
}

} // namespace simulator
