// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "simulator/device.h"

#include "simulator/course.h"
#include "simulator/deviceconnection.h"
#include "simulator/inputlines.h"
#include "simulator/run.h"

#include <QtCore/QTimerEvent>

namespace simulator {
namespace {

constexpr qint64 LongestMs = 24 * 3600 * 1000; // of one timer: a pause may have more ms than an int

} // namespace

Device::Device(QObject *parent, const Run &sharedRun, quint64 deviceNumber)
    : QObject(parent),
      run(sharedRun),
      number(deviceNumber),
      course(courseOf(sharedRun, deviceNumber))
{
    if (run.input)
        connect(run.input, &InputLines::came, this, &Device::onInputCame);
}

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
    else if (pause.isActive())
        pause.start(0, this);
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
    course->next();
    ++connectionNumber;
    const MessageSource &source = course->source();
    const Course::Messages messages = course->messages();
    const RandomSource cuts({options.seed, number, connectionNumber});
    Outbox outbox(source, Segmenter(options.segments, source.usualBytes(), cuts), number,
                  messages.first, messages.last, options.checksum);
    ConnectionRecord numbers;
    numbers.device = number;
    numbers.connection = connectionNumber;
    connection = std::make_unique<DeviceConnection>(run, numbers, std::move(outbox), *course);
    // Queued: the slot deletes the connection, which may emit finished() within a call from here.
    connect(connection.get(), &DeviceConnection::finished, this, &Device::onConnectionFinished,
            Qt::QueuedConnection);
    connect(connection.get(), &DeviceConnection::opened, this, &Device::onConnectionOpened);
    connection->open();
}

void Device::timerEvent(QTimerEvent *event)
{
    if (event->timerId() != pause.timerId())
        return QObject::timerEvent(event);
    pause.stop();
    if (stopping)
        Q_EMIT finished(this);
    else if (pauseClock.elapsed() < course->pauseMs())
        waitOn();
    else
        connectNext();
}

void Device::waitOn()
{
    const qint64 ms = qMin(course->pauseMs() - pauseClock.elapsed(), LongestMs);
    pause.start(static_cast<int>(qMax<qint64>(0, ms)), Qt::PreciseTimer, this);
}

void Device::onConnectionOpened()
{
    if (connectionNumber == 1)
        Q_EMIT opened();
}

void Device::onInputCame()
{
    if (connection)
        connection->goOn();
}

void Device::onConnectionFinished()
{
    const ConnectionRecord record = connection->result();
    connection.reset();
    if (!record.opened)
        onConnectionOpened();
    Q_EMIT connectionEnded(record);

    // Not after a failure: the messages that it left unsent would be missing in the numbering.
    if (stopping || record.failed || !course->hasNext())
        return Q_EMIT finished(this);
    if (course->pauseMs() == 0)
        return connectNext();
    pauseClock.start();
    waitOn();
}

} // namespace simulator
