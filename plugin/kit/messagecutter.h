// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include "plugin/kit/inputmessage.h"
#include "plugin/kit/linelimit.h"
#include "plugin/kit/trafficobserver.h"

namespace inputkit {

//! What was read, over all connections.
struct MessageCounts
{
    quint64 messages = 0; // whole ones
    quint64 bytes = 0; // of whole messages, without framing
    quint64 partial = 0;
    quint64 tooLong = 0; // skipped
    quint64 bad = 0; // messages that failed a check, and what lay between two messages
};

/*!
    Cuts a connection's bytes into messages and hands them to functions of the host.

    Thread: any one; the functions are called in it.
    Owner:  the caller.
*/
class MessageCutter final : public OfferConsumer
{
public:
    // trafficObserver: may be null.
    MessageCutter(SharedFraming messageFraming, InputHandlers functions,
                  TrafficObserver *trafficObserver = nullptr);

    // To be called in a handler: the connection's next message waits for another go.
    void interrupt() { interrupted = true; }
    // A handler is running.
    bool isHandling() const { return handling; }

    MessageCounts counts() const { return counted; }
    // Warnings of a kind beyond ten a minute are only counted. This logs their number if the minute
    // is over, or if atOnce.
    void tellMissedWarnings(bool atOnce = false);

    Origin originOf(const ParsedData &record, quint64 connection) const override;
    qsizetype write(QByteArrayView bytes, quint64 position, const Origin &origin, FrameState &state,
                    Allowance &allowance) override;
    qsizetype bytesToAppend(QByteArrayView rest, QByteArrayView next) const override;
    void writePartial(QByteArrayView rest, quint64 position, const Origin &origin) override;
    bool giveUp(QByteArrayView rest, quint64 position, const Origin &origin,
                FrameState &state) override;
    void read(const Origin &origin, quint64 position, QByteArrayView bytes) override;
    void ended(const Origin &origin, const QString &reason, quint64 position) override;

private:
    void handOut(const InputMessage &message);
    void handle(const Frame &frame, quint64 position, const Origin &origin);

    const SharedFraming framing;
    const InputHandlers handlers;
    TrafficObserver *const observer;
    MessageCounts counted;
    LineLimit tooLongLines;
    LineLimit badLines;
    bool interrupted = false;
    bool handling = false;
};

} // namespace inputkit
