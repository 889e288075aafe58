// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include "host/counters.h"
#include "host/framing.h"
#include "host/linelimit.h"
#include "host/message.h"
#include "host/output.h"

#include <QtCore/QObject>

#include <limits>

class ParsedData;

namespace host {

//! How much of a connection may be read before it is another one's turn.
struct Allowance
{
    qint64 messages = std::numeric_limits<qint64>::max();
    qint64 bytes = std::numeric_limits<qint64>::max(); // the last message may exceed it

    bool isUsedUp() const { return messages <= 0 || bytes <= 0; }
};

/*!
    Cuts a connection's bytes into messages, prints them and counts them.

    Thread: any one.
    Owner:  the caller, also of the output and the counters.
*/
class MessageWriter : public QObject
{
    Q_OBJECT

public:
    MessageWriter(const FrameFormat &frameFormat, Output &messageOutput, Counters &total);

    // Stops after that many messages: nothing more is printed. 0 (default): never.
    void setLimit(qint64 messages) { limit = messages; }
    bool isDone() const { return done; }

    const FrameFormat &frameFormat() const { return format; }

    // What messages of that record tell of their origin; only what the output shows, and the
    // source.
    Origin originOf(const ParsedData &record) const;

    // Prints the messages at the front of the bytes. Returns the number of bytes taken. What is
    // left is the beginning of a message, unless the allowance is used up or the limit is reached.
    qsizetype write(QByteArrayView bytes, const Origin &origin, FrameState &state,
                    Allowance &allowance);

    // rest: what write() has left, and which goes no further. Empty: nothing happens.
    void writePartial(QByteArrayView rest, const Origin &origin);

    // The same for a message that goes on, but takes too much memory: what is still to come of it
    // is skipped, and a line warns of it. False, and nothing happens, if it is too short for that.
    bool giveUp(QByteArrayView rest, const Origin &origin, FrameState &state);

    // Warnings beyond ten a minute are counted. Tells how many there were, if the minute is over.
    void tellMissedWarnings(bool atOnce = false);

Q_SIGNALS:
    // The limit is reached.
    void finished();

private:
    void warnOfTooLong(const Origin &origin);
    void writeMessage(QByteArrayView head, QByteArrayView bytes);

    const FrameFormat format;
    Output &output;
    Counters &counters;
    LineLimit tooLongLines;
    LineLimit givenUpLines;
    qint64 limit = 0;
    bool done = false;
};

} // namespace host
