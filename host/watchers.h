// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include "host/counters.h"
#include "host/messagereader.h"
#include "host/options.h"
#include "host/servicenotifier.h"
#include "host/sinks/sink.h"
#include "host/web/monitor.h"
#include "plugin/kit/pluginrunner.h"

#include <QtCore/QDateTime>
#include <QtCore/QObject>

#include <chrono>
#include <memory>

namespace host {

/*!
    Who looks at the program from outside: browsers, balancers and Prometheus at its snapshot, the
    service manager at what it says of itself. Without --http, --metrics-file and NOTIFY_SOCKET
    nobody does, and nothing is done.

    Thread: the main thread.
    Owner:  the host, which keeps what it shows, and destroys the reader that it observes first.
*/
class Watchers : public QObject
{
    Q_OBJECT

public:
    Watchers(const Options &commandLine, const Counters &messageCounters, Sink &messageSink,
             const inputkit::PluginRunner &pluginRunner);

    // False: errorString() says what cannot be listened on or written.
    bool start(MessageReader &reader);
    QString errorString() const { return monitor->errorString(); }

    // The plugin serves with its present configuration and certificates.
    void noteConfiguration();
    void tellReloading();
    // The end of the start, or of a reload.
    void tellServing(bool configurationWorked);
    // Devices are let go; finish() follows in that time.
    void tellDraining(std::chrono::milliseconds atMost);
    void tellStopping() { tellEnd(std::chrono::milliseconds(0)); }

private:
    Snapshot describe() const;
    void tellManager(const Snapshot &snapshot);
    void tellEnd(std::chrono::milliseconds untilFinish);

    const Options &options;
    const Counters &counters;
    Sink &sink;
    const inputkit::PluginRunner &runner;
    ServiceNotifier manager;
    std::unique_ptr<Monitor> monitor; // null: nobody looks
    QList<CertificateEnd> certificates; // of the plugin
    QDateTime configured; // when the plugin began to serve with its configuration
    bool lastReloadWorked = true;
    bool draining = false;
};

} // namespace host
