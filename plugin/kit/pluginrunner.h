// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include "plugin/countersevent.h"
#include "plugin/kit/listenstatus.h"
#include "plugin/kit/pluginloader.h"
#include "plugin/kit/recordreader.h"

#include <QtCore/QJsonObject>
#include <QtCore/QMap>
#include <QtCore/QObject>
#include <QtCore/QString>
#include <QtCore/QTimer>

#include <optional>

class IInputPlugin;

namespace inputkit {

//! Which library is loaded, and what its plugins are told beside their configuration.
struct PluginSettings
{
    QString library; // its file; empty: looked for, see PluginLoader
    // Of the package that the program was built with. Used only where it is still there.
#ifdef TCPINPUTPLUGIN2_LIBRARY
    QString libraryHint = QStringLiteral(TCPINPUTPLUGIN2_LIBRARY);
#else
    QString libraryHint;
#endif
    EntryPoint entryPoint = EntryPoint::Create;
    QString pluginId; // names the plugin in log lines and records
    QString logLevel = QStringLiteral("info"); // "debug": the plugin reports its threads
};

/*!
    Loads the library and runs one plugin at a time, whose records a reader gets.

    Each plugin is started only once. A restarted plugin keeps the signal connections of its former
    start, and would hand over each connection once per start. So each start has a new plugin.

    Configurations are passed on as they are: see withDefaults().

    Thread: its creator's, with an event loop; the reader is called in it.
    Owner:  the caller. The destructor has the reader read what the plugin has left.
*/
class PluginRunner : public QObject
{
    Q_OBJECT

public:
    enum class Failure {
        None,
        NoLibrary, // it is not there, or cannot be loaded, or is none
        WrongLibrary, // of a release that does not fit these headers
        BadConfiguration, // the reader refuses it; nothing has changed
        Refused, // by the plugin; the log says why
        NotListening, // the port is in use, for example
        Busy, // called by a handler, or by what handles log lines; nothing has changed
    };

    PluginRunner(PluginSettings pluginSettings, RecordReader &recordReader);
    ~PluginRunner() override;

    // Loads the library, if it is not loaded yet; start() does so, too. False: NoLibrary.
    bool load();

    // Listens. A plugin that runs is stopped before. False: failure() and errorString() say why.
    bool start(const QJsonObject &configuration);
    // Starts the configuration that has listened last, behind a start() that has failed. False:
    // that fails now, too, or there is none, or stop() was called meanwhile. True, and nothing
    // happens, if a plugin listens.
    bool restore();
    // start() and, if that has ended a plugin in vain, restore(). True: the new one listens.
    // failure() and errorString() are those of the new configuration.
    bool reload(const QJsonObject &configuration);

    // Ends all connections and deletes the plugin, after what it has read was passed to the reader.
    // Called while the runner is busy, it happens later.
    void stop();
    // A record is being read, or a plugin is being started or deleted.
    bool isBusy() const { return changing || reader.isReading(); }

    // False: no connection is accepted, by this plugin and those that come after it, until it is
    // true again. Devices wait in the kernel. Default: true.
    void setAccepting(bool enable);

    // Has the plugin read the files of certificates and keys anew. False: the log says why.
    bool renewCertificates();

    Failure failure() const { return lastFailure; }
    QString errorString() const { return error; }

    // Where the plugin listens.
    ListenStatus listens() const { return listensOn; }
    // That has listened last; empty: none has.
    QJsonObject configuration() const { return running; }

    // Passes an answer on to the plugin, as IInputPlugin::discard(). Without a plugin, nothing.
    void answer(int length, const QMap<QString, QString> &subId);

    // Nothing: no plugin runs.
    std::optional<InputCounters> counters() const;
    // The plugin's status text, lines end with CR LF. Empty: no plugin runs.
    QString status() const;

private:
    bool fail(Failure kind, const QString &text);
    bool run(const QJsonObject &configuration);
    bool fits();
    void connectPlugin();
    void removePlugin();
    void stopLater();

    const PluginSettings settings;
    RecordReader &reader;
    PluginLoader loader;
    bool isLoaded = false;

    IInputPlugin *plugin = nullptr; // owned; while it is deleted, its records still come
    ListenStatus listensOn;
    QJsonObject running; // of the plugin, or of the last one that listened
    QTimer stopTimer; // stop() was called while the runner was busy
    bool changing = false; // a plugin is being started or deleted
    bool accepting = true;
    Failure lastFailure = Failure::None;
    QString error;
};

} // namespace inputkit
