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

    // The origin of the record's messages: only the parts that the output shows, and the source.
    Origin originOf(const ParsedData &record) const;

    // Prints the messages at the front of the bytes. Returns the number of bytes taken. What is
    // left is the beginning of a message, unless the allowance is used up or the limit is reached.
    qsizetype write(QByteArrayView bytes, const Origin &origin, FrameState &state,
                    Allowance &allowance);

    // Prints the beginning of a message whose end will not come. rest: what write() has left; if it
    // is empty, nothing happens.
    void writePartial(QByteArrayView rest, const Origin &origin);

    // The same for a message that goes on, but takes too much memory. Its further bytes are
    // skipped, and a line warns of it. False, and nothing happens, if its end cannot be found, see
    // abandonMessage().
    bool giveUp(QByteArrayView rest, const Origin &origin, FrameState &state);

    // Warnings of a kind beyond ten a minute are only counted. This logs their number if the minute
    // is over, or if atOnce.
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
