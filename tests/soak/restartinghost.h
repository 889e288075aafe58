// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include "host/counters.h"
#include "host/messagereader.h"
#include "host/options.h"
#include "host/output.h"
#include "host/pluginloader.h"

#include <QtCore/QJsonObject>
#include <QtCore/QObject>

#include <memory>

class IInputPlugin;

/*!
    A host that stops and starts one plugin object again and again, where inputhost makes a new one
    each time it reloads. Nothing undoes the signal connections that a start makes, so after some
    starts the object makes room for a new one.

    Command line, counting and signals are inputhost's; SIGHUP restarts. SIGUSR1 also gives memory
    that is free back to the system: what is resident then is in use, and a small leak shows.

    Thread: the main thread.
*/
class RestartingHost : public QObject
{
public:
    // commandLine: outlives the host.
    explicit RestartingHost(const host::Options &commandLine);
    ~RestartingHost() override;

    // Until SIGTERM or SIGINT, or until the plugin does not listen: the program's exit code.
    int run();

private:
    void makePlugin();
    bool startPlugin();
    void removePlugin();
    void restart();

    const host::Options &options;
    host::PluginLoader loader;
    QJsonObject configuration;
    host::Counters counters;
    host::Output output;
    host::MessageReader reader;
    std::unique_ptr<IInputPlugin> plugin;
    int starts = 0; // of this plugin object
};
