// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "simulator/device.h"

#include "simulator/deviceconnection.h"
#include "simulator/pace.h"
#include "simulator/replay.h"
#include "simulator/run.h"
#include "simulator/timetable.h"

#include <limits>

namespace simulator {
namespace {

// Number of the last message that a device sends over its first `connection` connections.
quint64 lastMessage(const Options &options, quint64 connection)
{
    const bool saysNothing =
            options.fault == Fault::Silent || options.fault == Fault::AbortHandshake;
    if (connection == 0 || saysNothing)
        return 0;
    if (options.messages == 0)
        return std::numeric_limits<quint64>::max();
    const quint64 connections = options.reconnect + 1;
    const quint64 share = options.messages / connections;
    return share * connection + qMin(connection, options.messages % connections);
}

std::unique_ptr<Schedule> scheduleOf(const Run &run, quint64 device)
{
    if (run.replay)
        return std::make_unique<Timetable>(run.replay->messageTimes(device), run.options.speed);
    return std::make_unique<Pace>(run.options.rate);
}

} // namespace

Device::Device(QObject *parent, const Run &sharedRun, quint64 deviceNumber)
    : QObject(parent),
      run(sharedRun),
      number(deviceNumber),
      lastConnection(sharedRun.options.reconnect + 1),
      schedule(scheduleOf(sharedRun, deviceNumber))
{}

Device::~Device() = default;

void Device::start()
{
    connectNext();
}

void Device::stop()
{
    stopping = true;
    if (connection)
        connection->stop();
}

void Device::abandon()
{
    if (connection)
        connection->abandon();
}

quint64 Device::openMessages() const
{
    return connection ? connection->sentMessages() : 0;
}

void Device::connectNext()
{
    const Options &options = run.options;
    const quint64 first = lastMessageOf(connectionNumber) + 1;
    ++connectionNumber;
    const RandomSource cuts({options.seed, number, connectionNumber});
    Outbox outbox(run.messages, Segmenter(options.segments, run.messages.usualBytes(), cuts),
                  number, first, lastMessageOf(connectionNumber), options.checksum);
    ConnectionRecord numbers;
    numbers.device = number;
    numbers.connection = connectionNumber;
    connection = std::make_unique<DeviceConnection>(run, numbers, std::move(outbox), *schedule,
                                                    ending());
    // Queued: the slot deletes the connection, which may emit finished() within a call from here.
    connect(connection.get(), &DeviceConnection::finished, this, &Device::onConnectionFinished,
            Qt::QueuedConnection);
    connect(connection.get(), &DeviceConnection::opened, this, &Device::onConnectionOpened);
    connection->open();
}

quint64 Device::lastMessageOf(quint64 firstConnections) const
{
    if (!run.replay)
        return lastMessage(run.options, firstConnections);
    return firstConnections == 0 ? 0 : run.replay->messageCount(number);
}

Ending Device::ending() const
{
    if (!run.replay)
        return endingFor(run.options, connectionNumber == lastConnection);
    return recordedEnding(run.options, run.replay->restUs(number),
                          run.replay->endsWithReset(number));
}

void Device::onConnectionOpened()
{
    if (connectionNumber == 1)
        Q_EMIT opened();
}

void Device::onConnectionFinished()
{
    const ConnectionRecord record = connection->result();
    connection.reset();
    if (!record.opened)
        onConnectionOpened();
    Q_EMIT connectionEnded(record);

    // Not after a failure: the messages that it left unsent would be missing in the numbering.
    if (!stopping && !record.failed && connectionNumber < lastConnection)
        connectNext();
    else
        Q_EMIT finished(this);
}

} // namespace simulator
