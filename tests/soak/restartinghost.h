// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include "host/counters.h"
#include "host/messagereader.h"
#include "host/options.h"
#include "host/sinks/sink.h"
#include "plugin/kit/pluginloader.h"

#include <QtCore/QJsonObject>
#include <QtCore/QObject>

#include <memory>

class IInputPlugin;

/*!
    A host that stops and starts one plugin object several times, while inputhost makes a new object
    at each reload. The signal connections that a start makes stay until the object is destroyed. So
    after some starts, the host replaces the object.

    Command line, counting and signals are the same as inputhost's. SIGHUP restarts the plugin.
    SIGUSR1 also returns free memory to the system: so resident memory is memory in use, and small
    leaks show.

    Thread: the main thread.
*/
class RestartingHost : public QObject
{
public:
    // commandLine: outlives the host.
    explicit RestartingHost(const host::Options &commandLine);
    ~RestartingHost() override;

    // Runs until SIGTERM or SIGINT, or until the plugin does not listen. Returns the exit code.
    int run();

private:
    void makePlugin();
    bool startPlugin();
    void removePlugin();
    void restart();

    const host::Options &options;
    inputkit::PluginLoader loader;
    QJsonObject configuration;
    host::Counters counters;
    const std::unique_ptr<host::Sink> sink;
    host::MessageReader reader;
    std::unique_ptr<IInputPlugin> plugin;
    int starts = 0; // of this plugin object
};
