// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include "plugin/kit/framing.h"

#include <QtCore/QByteArrayView>
#include <QtCore/QDateTime>
#include <QtCore/QString>

#include <limits>

class ParsedData;

namespace inputkit {

//! Where bytes came from, as their record says. A value.
struct Origin
{
    quint64 connection = 0; // unique in the process
    QDateTime time; // when the record was made
    QString plugin;
    QString source;
    QString peer;
    unsigned short port = 0;
    QString client;
    QString task;
};

//! How much of a connection may be read before it is another one's turn.
struct Allowance
{
    qint64 messages = std::numeric_limits<qint64>::max();
    qint64 bytes = std::numeric_limits<qint64>::max(); // the last message may exceed it

    bool isUsedUp() const { return messages <= 0 || bytes <= 0; }
};

/*!
    What OfferReader reads for: it cuts messages from the bytes, and does something with them.

    Thread: the reader's.
    Owner:  the caller; it outlives the reader.
*/
class OfferConsumer
{
public:
    OfferConsumer() = default;
    virtual ~OfferConsumer() = default;
    Q_DISABLE_COPY_MOVE(OfferConsumer)

    // Nothing more is wanted: what still comes is consumed unread.
    virtual bool isDone() const { return false; }

    // Of the record's messages, as far as it is needed.
    virtual Origin originOf(const ParsedData &record, quint64 connection) const = 0;

    // A connection's first bytes are here.
    virtual void began(const ParsedData &) {}

    // Takes the messages at the front of the bytes. position: how many bytes of the connection lie
    // before the first one. Returns the number of bytes taken. What is left is the beginning of a
    // message, unless the allowance is used up.
    virtual qsizetype write(QByteArrayView bytes, quint64 position, const Origin &origin,
                            FrameState &state, Allowance &allowance) = 0;

    // As Framing::bytesToAppend().
    virtual qsizetype bytesToAppend(QByteArrayView rest, QByteArrayView next) const = 0;

    // The beginning of a message whose end will not come. rest: what write() has left; maybe empty.
    virtual void writePartial(QByteArrayView rest, quint64 position, const Origin &origin) = 0;

    // The same for a message that goes on, but takes too much memory. Its further bytes are
    // skipped. False, and nothing happens, if its end cannot be found.
    virtual bool giveUp(QByteArrayView rest, quint64 position, const Origin &origin,
                        FrameState &state) = 0;

    // These bytes of a connection have been read: each byte once, in order. position: how many
    // bytes of the connection lie before. bytes: not empty; valid until the function returns.
    virtual void read(const Origin &, quint64 /*position*/, QByteArrayView /*bytes*/) {}

    // The connection is over. reason: as subids::end(). position: behind its last byte.
    virtual void ended(const Origin &, const QString & /*reason*/, quint64 /*position*/) {}
};

} // namespace inputkit
