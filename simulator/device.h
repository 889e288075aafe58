// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include "simulator/report.h"

#include <QtCore/QBasicTimer>
#include <QtCore/QElapsedTimer>
#include <QtCore/QObject>

#include <memory>

namespace simulator {

class Course;
class DeviceConnection;
struct Run;

/*!
    One remote device. It sends its messages over one connection or, if it reconnects, over several
    in turn.

    Thread: the main thread.
    Owner:  the Fleet.
*/
class Device : public QObject
{
    Q_OBJECT

public:
    // deviceNumber: from 1.
    Device(QObject *parent, const Run &sharedRun, quint64 deviceNumber);
    ~Device() override;

    void start();

    // Finishes the message that it has begun, closes and does not connect again.
    void stop();

    // Closes now.
    void abandon();

    // How many messages the current connection has sent so far; 0 between two connections.
    quint64 openMessages() const;

Q_SIGNALS:
    void opened(); // once: its first connection is open, or has ended without having been
    void connectionEnded(const ConnectionRecord &record);
    // Emitted once, never from within start(), stop() or abandon(). It names the device, since
    // QObject::sender() is slow for a receiver with thousands of senders.
    void finished(Device *device);

protected:
    void timerEvent(QTimerEvent *event) override;

private Q_SLOTS:
    void onConnectionOpened();
    void onInputCame();
    void onConnectionFinished();

private:
    void connectNext();
    void waitOn();

    const Run &run;
    const quint64 number;
    quint64 connectionNumber = 0;
    bool stopping = false;
    const std::unique_ptr<Course> course;
    QBasicTimer pause; // between two connections
    QElapsedTimer pauseClock;
    std::unique_ptr<DeviceConnection> connection;
};

} // namespace simulator
