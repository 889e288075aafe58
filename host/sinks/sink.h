// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include "plugin/kit/offerconsumer.h"

#include <QtCore/QByteArray>
#include <QtCore/QByteArrayView>
#include <QtCore/QObject>
#include <QtCore/QString>

#include <atomic>
#include <chrono>

namespace host {

using inputkit::Origin;

//! One message for a sink. It does not own the bytes, so it must not be kept.
struct Message
{
    const Origin &origin;
    QByteArrayView head; // as Sink::headOf() made it for the origin
    QByteArrayView bytes; // without framing
    // Where it lies in its connection's bytes, with framing. Both 0: the plugin does not tell.
    quint64 position = 0;
    quint64 end = 0;
    bool partial = false; // the beginning of a message whose end never came
};

/*!
    Where messages go.

    A sink takes all that it is given. When it holds more than it wants to, it says that it is full,
    and whoever calls it gives it no more until it is not full. It says when messages are safe, and
    only then are they discarded in the plugin: so "limits" count them, and devices have to wait for
    a sink that is slow or away.

    Thread: its creator's, with an event loop. All signals are emitted there.
    Owner:  the caller.
*/
class Sink : public QObject
{
    Q_OBJECT

public:
    // Before the first message. False: errorString() says why the program must not go on. A server
    // that is away is no reason: the sink waits for it.
    virtual bool open() { return true; }
    QString errorString() const { return error; }

    // Whether all of a message's origin is needed. If not, only source and connection are.
    virtual bool showsOrigins() const { return true; }
    // False: a message is safe when write() returns, and safe() is never emitted.
    virtual bool acknowledges() const { return true; }
    bool isFull() const { return full; }
    // How many messages are not safe yet. From any thread, and in signal handlers.
    const std::atomic<qint64> &unsafeMessages() const { return unsafe; }

    // What all messages of that origin have in common, made once for several of them.
    virtual QByteArray headOf(const Origin &) const { return {}; }

    // A connection's first bytes are here. Not called where the plugin does not number connections.
    virtual void began(const Origin &) {}
    virtual void write(const Message &message) = 0;
    // The connection is over. reason: as subids::end(). position: behind its last byte.
    virtual void ended(const Origin &, const QString & /*reason*/, quint64 /*position*/) {}

    // Waits until the sink is not full. For who cannot put off what it has. Default: does not wait.
    virtual void makeRoom() {}

    // False: what it needs is away, and it tries again. Default: it needs nothing.
    virtual bool isConnected() const { return true; }

    // At the end of the program. Waits until all messages are safe, but no longer than that.
    // Returns how many are not.
    virtual qint64 finish(std::chrono::milliseconds atMost) = 0;
    // The counters' line, behind the last message.
    virtual void summarize(const QString & /*line*/) {}

    // The operator has moved the file.
    virtual void reopen() {}

Q_SIGNALS:
    // Of that connection, all messages up to this Message::end. Called in order of each connection;
    // the connection may be over already.
    void safe(quint64 connection, quint64 end);
    void fullChanged(bool isFull);
    // Emitted once: nothing more can be written, ever. reason: for the operator.
    void failed(const QString &reason);

protected:
    void setFull(bool isFull)
    {
        if (full == isFull)
            return;
        full = isFull;
        Q_EMIT fullChanged(isFull);
    }

    void setUnsafe(qint64 messages) { unsafe.store(messages, std::memory_order_relaxed); }

    QString error;

private:
    std::atomic<qint64> unsafe = 0;
    bool full = false;
};

} // namespace host
