// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include "plugin/countersevent.h"
#include "plugin/kit/acknowledgements.h"
#include "plugin/kit/framing.h"
#include "plugin/kit/handover.h"
#include "plugin/kit/inputmessage.h"
#include "plugin/kit/listenstatus.h"
#include "plugin/kit/messagecutter.h"
#include "plugin/kit/offerreader.h"
#include "plugin/kit/pluginloader.h"

#include <QtCore/QJsonObject>
#include <QtCore/QObject>
#include <QtCore/QString>
#include <QtCore/QTimer>

#include <memory>
#include <optional>

class IInputPlugin;

namespace inputkit {

/*!
    Says for a session that the host has done with messages, see InputSession::acknowledge(). A
   value; a copy may outlive the session, and does nothing then.

    Thread: any.
    Locks:  one, shared with the session, held while a call is posted.
*/
class Acknowledger
{
public:
    void operator()(quint64 connection, quint64 end) const;

private:
    friend class InputSession;
    struct Link;
    std::shared_ptr<Link> link;
};

//! What a session is like. It stays as it is for the session's life.
struct InputSettings
{
    // What happens to messages and ends.
    InputHandlers handlers;
    SharedFraming framing = lines();
    // Null, or an object of the session's thread: the handlers are called in that thread, as the
    // messages are read. An object of another thread: they are called there, see HandOver.
    QObject *receiver = nullptr;
    // A message counts as consumed only when acknowledge() says so.
    bool acknowledging = false;
    // Unfinished messages of all connections together, in bytes. Beyond it, the longest one is
    // handed out as partial, and skipped.
    qint64 maxUnfinished = 64 * 1024 * 1024;

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

    Pace pace;
};

/*!
    Takes in what devices send, as messages: loads the library, runs one plugin at a time, and
    answers it. Each message is handed out once, in the order of its connection, however late the
    handlers are.

    The plugin is asked for "offsets" and "ends", and unless the configuration has these keys, for
    "prompt", "strict", and in "limits" 1 MiB a connection and 128 MiB in all. In "ssl", likewise,
   for "Chain", "KeyAlgorithm": "auto" and "engine": "own".

    Handlers that are called in the session's thread may call everything here but start() and
    reload(), and must not delete the session. They may run an event loop of their own; messages
   that come meanwhile are handed out afterwards. A handler that takes long holds up its thread: the
    plugin then accepts nothing, and devices have to wait. With a receiver in another thread, they
   only wait when 8 MiB are on their way there; handlers there use nothing of the session but a copy
   of acknowledger().

    Thread: its creator's, with an event loop; see acknowledger() for others.
    Owner:  the caller. What the handlers use outlives the session, which hands out the last
            messages while it is destroyed. A receiver in another thread may go at any time; as long
            as it lives, messages may still be on their way to it when the session has gone.
*/
class InputSession : public QObject
{
    Q_OBJECT

public:
    enum class Failure {
        None,
        NoLibrary, // it is not there, or cannot be loaded, or is none
        WrongLibrary, // of a release that does not fit these headers
        BadConfiguration, // it switches off what a session needs; nothing has changed
        Refused, // by the plugin; the log says why
        NotListening, // the port is in use, for example
        Busy, // called by a handler, or by what handles log lines; nothing has changed
    };

    explicit InputSession(InputSettings sessionSettings, QObject *parent = nullptr);
    ~InputSession() override;

    // Loads the library if it is not loaded yet, and listens. A session that listens is stopped
    // before. False: failure() and errorString() say why.
    bool start(const QJsonObject &configuration);

    // Ends all connections; what the plugin has read of them is handed out before this returns, or
    // sent to the receiver. Called by a handler, or by what handles log lines, it happens later.
    void stop();

    // As start(), but goes back to the running configuration if the new one does not listen. True:
    // the new one does. isListening() says whether the old one does otherwise.
    bool reload(const QJsonObject &configuration);

    // Reads the files of certificates and keys anew; connections go on. False: the log says why.
    bool renewCertificates();

    Failure failure() const { return lastFailure; }
    QString errorString() const { return error; }

    bool isListening() const { return listensOn.port > 0; }
    QString address() const { return listensOn.address; }
    int port() const { return listensOn.port; } // 0: nothing listens

    // The connection is not read until resume(): then its device has to wait, at the latest when
    // "connectionBuffer" is full. Its end waits, too. With "stalledTimeout" in "limits" (default:
    // none) the plugin closes it after that time.
    void pause(quint64 connection);
    void resume(quint64 connection);

    // With acknowledging: the host has done with the connection's messages up to the position, an
    // InputMessage::end.
    void acknowledge(quint64 connection, quint64 end);
    // The same for other threads.
    Acknowledger acknowledger() const { return fromAnyThread; }

    // Nothing: no plugin runs.
    std::optional<InputCounters> counters() const;
    MessageCounts messageCounts() const { return cutter.counts(); }
    // The plugin's status text, lines end with CR LF. Empty: no plugin runs.
    QString status() const;

    // The configuration as the plugin gets it.
    static QJsonObject withDefaults(QJsonObject configuration);

private:
    InputHandlers innerHandlers();
    bool isBusy() const { return changing || cutter.isHandling() || reader.isReading(); }
    void stopLater();
    void answerPlugin(int length, const QMap<QString, QString> &subId);
    void receive(const shared_parsedData &record);
    bool fail(Failure kind, const QString &text);

    bool load();
    bool run(const QJsonObject &configuration);
    bool isUsable(const QJsonObject &complete);
    bool fits();
    void connectPlugin();
    void removePlugin();

    const InputSettings settings;
    PluginLoader loader;
    bool isLoaded = false;
    std::unique_ptr<HandOver> handOver; // null: the handlers are called in this thread
    MessageCutter cutter;
    Acknowledgements acknowledgements;
    Acknowledger fromAnyThread;
    OfferReader reader;
    QTimer warningTimer;

    IInputPlugin *plugin = nullptr; // owned; while it is deleted, its records still come
    ListenStatus listensOn;
    QJsonObject running; // the configuration of the plugin, as it was given
    QTimer stopTimer; // stop() was called while the session is busy
    bool changing = false; // a plugin is being started or deleted
    Failure lastFailure = Failure::None;
    QString error;
};

} // namespace inputkit
