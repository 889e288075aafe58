// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include "simulator/messagesource.h"
#include "simulator/options.h"

#include <QtCore/QHash>
#include <QtCore/QList>
#include <QtCore/QString>

#include <optional>

namespace recording {
struct Entry;
}

namespace simulator {

/*!
    A recording as devices play it: each recorded connection is a device with one connection, and
    what came together is a message. Devices have the order in which the connections began.

    The recording is in memory as a whole.

    Thread: any once it is loaded.
*/
class Replay : public MessageSource
{
public:
    // How fast, and how the bytes are changed, are the options' to say.
    explicit Replay(const Options &given) : options(given) {}

    // Reads the file. False if it cannot be played: see errorString().
    bool load();
    QString errorString() const { return error; }
    // What is not as recorded: bytes that are missing, or a damaged end. Empty: nothing.
    QString warning() const { return complaint; }

    quint64 deviceCount() const { return static_cast<quint64>(connections.size()); }
    quint64 messageCount(quint64 device) const;

    // In microseconds of the recording: when the devices connect, after the first of them; and when
    // the device's messages are sent, after it has connected.
    QList<qint64> connectTimes() const;
    QList<qint64> messageTimes(quint64 device) const;

    // From the last message, or from connecting, to the end.
    qint64 restUs(quint64 device) const;
    bool endsWithReset(quint64 device) const;

    bool append(QByteArray &out, quint64 device, quint64 number) const override;
    qsizetype usualBytes() const override { return 1; }

private:
    struct Connection
    {
        qint64 beginUs = 0;
        QList<qint64> timesUs; // of the messages, after the begin
        QList<QByteArray> messages;
        quint64 position = 0; // behind what was recorded of it
        std::optional<qint64> endUs; // after the begin; nothing: it is open
        bool isReset = false;
    };
    using Open = QHash<quint64, qsizetype>; // indexes of connections, by number

    bool take(const recording::Entry &entry);
    void takeSession(const recording::Entry &entry);
    void takeBegin(const recording::Entry &entry);
    void takeBytes(const recording::Entry &entry);
    void takeEnd(const recording::Entry &entry);
    qsizetype add(const recording::Entry &entry);
    void close(const Open &numbers, qint64 timeUs);
    void mutate();
    const Connection &of(quint64 device) const;
    bool fail(const QString &text);

    const Options &options;
    QList<Connection> connections;
    Open open;
    Open unrepeated; // behind a session: what was open before and was not repeated yet
    qint64 sessionUs = 0; // time of the session
    quint64 missingByPosition = 0; // bytes
    quint64 missingInGaps = 0; // bytes, mostly the same ones
    QString error;
    QString complaint;
};

} // namespace simulator
