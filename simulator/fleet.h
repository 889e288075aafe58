// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include "simulator/report.h"
#include "simulator/schedule.h"

#include <QtCore/QObject>
#include <QtCore/QTimer>

#include <memory>

namespace simulator {

class Device;
struct Run;

/*!
    All devices of a run: starts them as the limits allow and collects their records.

    Thread: the main thread.
*/
class Fleet : public QObject
{
    Q_OBJECT

public:
    explicit Fleet(const Run &sharedRun);

    const Report &report() const { return collected; }
    bool wasInterrupted() const { return stopping; }

    //! The numbers so far. Messages are also those of connections that are still open.
    struct Numbers
    {
        quint64 started = 0; // devices
        quint64 active = 0; // of these
        quint64 messages = 0;
        quint64 failed = 0; // connections
    };
    Numbers numbers() const;
    QString progress() const; // a line with the first three

public Q_SLOTS:
    // Starts as many devices as may start now, and the others later.
    void launch();

    // First call: the devices finish the message that they have begun, and close, within a few
    // seconds. Second call: they close now.
    void stop();

Q_SIGNALS:
    void finished(); // once, when all devices are gone

private Q_SLOTS:
    void onDeviceOpened();
    void onConnectionEnded(const ConnectionRecord &record);
    void onDeviceFinished(Device *device);
    void abandon();

private:
    bool mayStart() const;
    void launchSoon(); // if one may start
    void startDevice();

    const Run &run;
    Report collected;
    const std::unique_ptr<Schedule> schedule; // of the devices' starts
    QTimer launchTimer;
    QTimer graceTimer;
    quint64 started = 0;
    quint64 active = 0;
    quint64 opening = 0; // of these
    bool stopping = false;
};

} // namespace simulator
