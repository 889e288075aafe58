// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include "simulator/segmenter.h"

#include <QtCore/QByteArray>
#include <QtCore/QCryptographicHash>
#include <QtCore/QList>

#include <memory>
#include <optional>

namespace simulator {

class MessageSource;

/*!
    The byte stream of one connection: made message by message, given out segment by segment.

    Knows neither sockets nor time. Counts only accepted bytes: these have been sent.
*/
class Outbox
{
public:
    // Messages first to last of the device; none if last < first.
    Outbox(const MessageSource &messageSource, const Segmenter &cuts, quint64 deviceNumber,
           quint64 first, quint64 last, bool withChecksum);

    // The bytes to write next, or the rest of them. due: number of the last message that may be
    // begun. Empty if another message must become due first, or if everything was written. Valid
    // until the next call of a function that is not const.
    QByteArrayView segment(quint64 due);

    // The kernel has accepted the first count bytes of segment().
    void accept(qsizetype count);

    // Begins no further message.
    void stop() { lastMessage = nextMessage - 1; }

    // The message that could not be made, since it does not fit its framing; it and those behind it
    // are not sent. 0: there is none.
    quint64 refusedNumber() const { return refused; }

    bool isAtEnd() const { return nextMessage > lastMessage && offset == buffer.size(); }
    bool isWithinSegment() const { return rest > 0; }
    quint64 nextNumber() const { return nextMessage; }

    quint64 acceptedMessages() const { return messages; }
    quint64 acceptedBytes() const { return bytes; }
    QByteArray checksum() const; // hexadecimal; empty if not wanted

private:
    void beginSegment(quint64 due);
    void gather();

    const MessageSource &source;
    const quint64 device;
    quint64 nextMessage;
    quint64 lastMessage;
    quint64 refused = 0;

    Segmenter segmenter;
    std::optional<Segmenter::Cut> cut; // of a segment that waits for bytes
    qsizetype rest = 0; // bytes of the segment that were not accepted yet

    QByteArray buffer;
    qsizetype offset = 0; // of the first byte in buffer that was not accepted
    QList<quint64> ends; // positions in the stream where the messages in buffer end
    quint64 gathered = 0; // bytes of the stream made so far

    quint64 messages = 0;
    quint64 bytes = 0;
    std::unique_ptr<QCryptographicHash> hash;
};

} // namespace simulator
