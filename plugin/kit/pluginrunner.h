// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include "plugin/countersevent.h"
#include "plugin/kit/listenstatus.h"
#include "plugin/kit/pluginloader.h"
#include "plugin/kit/recordreader.h"
#include "plugin/kit/runningplugin.h"

#include <QtCore/QJsonObject>
#include <QtCore/QMap>
#include <QtCore/QObject>
#include <QtCore/QString>
#include <QtCore/QTimer>

#include <chrono>
#include <memory>
#include <optional>
#include <vector>

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
    // A plugin that leaves tells its devices within this time, one after the other.
    std::chrono::milliseconds drainTime{0};
    // So much later, the connections that are left are ended.
    std::chrono::milliseconds closingTime{5000};
};

/*!
    Loads the library and runs a plugin, whose records a reader gets.

    A plugin that is replaced leaves: it accepts nothing more, and tells its devices that nothing
    follows from here (Drain). It serves them until they have closed, while its successor accepts
    connections on the same port already. So no device finds the port closed, and one that closes
    when it is told loses nothing. Several may leave at a time, at most MostLeaving: beyond that,
   the oldest is ended at once.

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
    // Starts a new plugin beside the one that runs, which then leaves. True: the new one listens.
    // False: the old one goes on as it was; failure() and errorString() say what is wrong with the
    // new configuration.
    //
    // In two cases the old plugin goes before the new one listens, and listens anew if that fails:
    // if the reader cannot read both, it is ended as by stop(); if both are for one port, but not
    // for the same address, it leaves.
    bool reload(const QJsonObject &configuration);

    // Ends all connections and deletes all plugins, after what they have read was passed to the
    // reader. Called while the runner is busy, it happens later.
    void stop();
    // Has the plugin leave without a successor. Emits drained() later, when no plugin is left, but
    // not if stop() ends them first. Called while the runner is busy, it happens later.
    void drain();

    static constexpr std::size_t MostLeaving = 8;
    // A record is being read, or a plugin is being started or deleted.
    bool isBusy() const { return changing || reader.isReading(); }

    // False: no connection is accepted, by this plugin and those that come after it, until it is
    // true again. Devices wait in the kernel. Default: true.
    void setAccepting(bool enable);
    bool isAccepting() const { return accepting; }

    // Has the plugin read the files of certificates and keys anew. False: the log says why.
    bool renewCertificates();

    Failure failure() const { return lastFailure; }
    QString errorString() const { return error; }

    // Where the plugin listens.
    ListenStatus listens() const { return current ? current->listens() : ListenStatus(); }
    // That has listened last; empty: none has.
    QJsonObject configuration() const { return running; }

    // Passes an answer on to the plugin, as IInputPlugin::discard(). Without a plugin, nothing.
    void answer(int length, const QMap<QString, QString> &subId);

    // Of the plugin that listens. Nothing: none does.
    std::optional<InputCounters> counters() const;
    // The plugins' status texts, lines end with CR LF; first that of the one that listens. Empty:
    // no plugin runs.
    QString status() const;

Q_SIGNALS:
    // See drain().
    void drained();

private:
    using Plugin = std::unique_ptr<RunningPlugin>;

    bool fail(Failure kind, const QString &text);
    bool prepare(const QJsonObject &configuration);
    bool run(const QJsonObject &configuration);
    bool replace(const QJsonObject &configuration);
    bool makeWay(const QJsonObject &configuration);
    Plugin make(const QJsonObject &configuration);
    bool fits(IInputPlugin &made);
    bool begin(RunningPlugin &plugin);
    void leave();
    void lookAtLeaving();
    void end(RunningPlugin &plugin);
    void endOldest();
    void endCurrent();
    void endAll();
    void later();

    const PluginSettings settings;
    RecordReader &reader;
    PluginLoader loader;
    bool isLoaded = false;

    Plugin current; // null: none
    std::vector<Plugin> leaving; // the oldest first; numbers of its connections are the lowest
    QJsonObject running; // of the plugin, or of the last one that listened
    QTimer leaveTimer; // runs while there are some that leave
    QTimer stopTimer; // stop() or drain() was called while the runner was busy
    bool drains = false; // it was drain()
    bool changing = false; // a plugin is being started or deleted
    bool accepting = true;
    Failure lastFailure = Failure::None;
    QString error;
};

} // namespace inputkit
