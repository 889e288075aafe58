// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include "plugin/kit/acknowledgements.h"
#include "plugin/kit/framing.h"
#include "plugin/kit/handover.h"
#include "plugin/kit/inputmessage.h"
#include "plugin/kit/linelimit.h"
#include "plugin/kit/messagecutter.h"
#include "plugin/kit/offerreader.h"
#include "plugin/kit/pluginrunner.h"
#include "plugin/kit/recordreader.h"
#include "plugin/kit/trafficobserver.h"

#include <QtCore/QJsonObject>
#include <QtCore/QMap>
#include <QtCore/QObject>
#include <QtCore/QString>
#include <QtCore/QTimer>

#include <memory>
#include <optional>

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
struct InputSettings : PluginSettings
{
    // What happens to messages and ends.
    InputHandlers handlers;
    SharedFraming framing = lines();
    // Null, or an object of the session's thread: the handlers are called in that thread, as the
    // messages are read. An object of another thread: they are called there, see HandOver.
    QObject *receiver = nullptr;
    // Null, or who sees the bytes and ends themselves, in the session's thread. It may call what a
    // handler there may call.
    TrafficObserver *observer = nullptr;
    // A message counts as consumed only when acknowledge() says so.
    bool acknowledging = false;
    // Unfinished messages of all connections together, in bytes. Beyond it, the longest one is
    // handed out as partial, and skipped.
    qint64 maxUnfinished = 64 * 1024 * 1024;

    Pace pace;
};

/*!
    Takes in what devices send, as messages: loads the library, runs a plugin, and answers it. Each
   message is handed out once, in the order of its connection, however late the handlers are.

    Keys that a configuration lacks are added to it, see withDefaults(). "offsets" and "ends" must
    not be switched off.

    Handlers that are called in the session's thread may call everything here but start() and
    reload(), and must not delete the session. They may run an event loop of their own; messages
    that come meanwhile are handed out afterwards. A handler that takes long holds up its thread:
    the plugin then accepts nothing, and devices have to wait. With a receiver in another thread,
    they only wait when 8 MiB are on their way there: then nothing is read, and no connection is
    accepted. stop() and the destructor hand over what the plugin still has all the same. So does
    the end of a plugin that leaves, behind reload() and drain().
    Handlers there use nothing of the session but a copy of acknowledger().

    Thread: its creator's, with an event loop; see acknowledger() for others.
    Owner:  the caller. What the handlers use outlives the session, which hands out the last
            messages while it is destroyed. A receiver in another thread may go at any time; as long
            as it lives, messages may still be on their way to it when the session has gone.
*/
class InputSession : public QObject, private RecordReader
{
    Q_OBJECT

public:
    using Failure = PluginRunner::Failure;

    explicit InputSession(InputSettings sessionSettings, QObject *parent = nullptr);
    ~InputSession() override;

    // Loads the library if it is not loaded yet, and listens. A session that listens is stopped
    // before. False: failure() and errorString() say why.
    bool start(const QJsonObject &configuration);

    // Ends all connections; what the plugin has read of them is handed out before this returns, or
    // sent to the receiver. Called by a handler, or by what handles log lines, it happens later.
    void stop();

    // As stop(), for devices that are to lose nothing: accepts no more, and tells each device that
    // nothing follows from here, within PluginSettings::drainTime. What they send is handed out
    // until they have closed. Emits drained() then, or when the devices have had their time to
    // close: the connections that are left are ended as by stop().
    void drain();

    // Goes on with a new plugin, and no moment without one that listens: the old one then leaves,
    // as with drain(), while the new one serves already. If the new one does not listen, the old
    // one goes on as it was. True: the new one does. See PluginRunner::reload().
    bool reload(const QJsonObject &configuration);

    // Reads the files of certificates and keys anew; connections go on. False: the log says why.
    bool renewCertificates();

    Failure failure() const { return runner.failure(); }
    QString errorString() const { return runner.errorString(); }

    bool isListening() const { return runner.listens().isListening(); }
    QString address() const { return runner.listens().address; }
    int port() const { return runner.listens().port; } // 0: nothing listens

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
    std::optional<InputCounters> counters() const { return runner.counters(); }
    MessageCounts messageCounts() const { return cutter.counts(); }
    // The plugin's status text, lines end with CR LF. Empty: no plugin runs.
    QString status() const { return runner.status(); }

Q_SIGNALS:
    // No plugin is left, behind drain().
    void drained();

private:
    InputHandlers innerHandlers();
    void answer(int length, const QMap<QString, QString> &subId);
    void holdUp(bool isFull);

    QString refusal(const QJsonObject &configuration) const override;
    void receive(const shared_parsedData &record) override;
    bool isReading() const override { return cutter.isHandling() || reader.isReading(); }
    void setAnswering(bool enable) override { reader.setAnswering(enable); }
    void forgetAll() override;
    // refusal() has seen to it that both have "offsets" and "ends".
    bool readsBoth(const QJsonObject &, const QJsonObject &) const override { return true; }
    void forgetUpTo(quint64 connection) override;

    const InputSettings settings;
    std::unique_ptr<HandOver> handOver; // null: the handlers are called in this thread
    MessageCutter cutter;
    Acknowledgements acknowledgements;
    Acknowledger fromAnyThread;
    OfferReader reader;
    QTimer warningTimer;
    LineLimit holdUpLines{1}; // it may happen every few milliseconds
    PluginRunner runner; // gone first: it uses all of the above
};

} // namespace inputkit
