// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include "host/exactreader.h"
#include "host/messagewriter.h"
#include "host/plainreader.h"

#include <QtCore/QMap>
#include <QtCore/QObject>
#include <QtCore/QTimer>

namespace host {

/*!
    Turns the plugin's offers into messages, and answers them.

    Offers that carry their position are taken exactly (ExactReader). For others it is guessed which
    bytes are repeated (PlainReader).

    With "ends", a connection is forgotten when the plugin tells its end. Without, it is forgotten
    when it was silent for longer than the plugin's idle time-out, since the plugin has closed it by
    then, or when it is the longest silent one of more than 100,000. What it still held is then
    printed as partial.

    Thread: the plugin's, which needs an event loop; receive() is called directly.
    Owner:  the caller, also of the output and the counters.
*/
class MessageReader : public QObject
{
    Q_OBJECT

public:
    // memory: of stamped connections whose ends are not told; its age counts no time for which
    // offers had to wait.
    MessageReader(const FrameFormat &frameFormat, Output &messageOutput, Counters &total,
                  const ExactOffers::Limits &memory = {}, const Pace &pace = {});

    // The plugin's idle time-out. Default: 60 s.
    void setIdleTimeout(qint64 seconds);
    // The plugin has "ends". Default: false. Before its first record.
    void setEndsTold(bool enable);
    // Of unfinished messages, over all connections that are read exactly. Beyond it the longest one
    // is given up. Default: no limit.
    void setMaxUnfinished(qint64 bytes) { exact.setMaxUnfinished(bytes); }
    // Stops after that many messages: nothing more is read or printed. 0 (default): never.
    void setMessageLimit(qint64 messages) { writer.setLimit(messages); }

    // False: the plugin is being stopped, and nobody carries out discards. The offers that still
    // come are read, and not answered. Default: true.
    void setAnswering(bool enable);

    // There will be no more offers from the connections known so far. Reads all that waits.
    void forgetAll();

    // With "ends", the open ones that have made an offer. Else those of which anything is kept.
    qsizetype rememberedConnections() const { return exact.remembered() + plain.remembered(); }

public Q_SLOTS:
    void receive(const shared_parsedData &record);

Q_SIGNALS:
    // To be connected with IInputPlugin::discard(). Must not lead back into receive().
    void answered(int bytes, const QMap<QString, QString> &subId);
    // The message limit is reached.
    void finished();

private:
    void forgetSilent();

    MessageWriter writer;
    const Answer answer;
    ExactReader exact;
    PlainReader plain;
    QTimer forgetTimer;
};

} // namespace host
