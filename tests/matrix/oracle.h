// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include <QtCore/QByteArray>
#include <QtCore/QByteArrayView>

/*!
    Knows what one connection's device says, and compares with what the host gets to see.

    Thread: one at a time.
*/
class Oracle
{
public:
    explicit Oracle(const QByteArray &deviceStream) : stream(deviceStream) {}

    // The host was offered these bytes, which are said to begin there in the stream.
    void offered(qsizetype position, QByteArrayView bytes);

    // The host's parser was given bytes that begin there: those consumed before are repeats.
    void parsed(qsizetype position, qsizetype length);

    // The parser has taken one message from that position.
    void consumed(qsizetype position, QByteArrayView message);

    // Where in the stream an offer begins that does not say so. Hosts cut whole messages only, so
    // an offer begins with one; a shorter one begins where all was consumed.
    qsizetype positionOf(QByteArrayView offer) const;

    // total: the bytes that the host should have been offered.
    qsizetype missing(qsizetype total) const { return skipped + qMax<qsizetype>(0, total - seen); }
    qsizetype outOfOrder() const { return wrong; }
    qsizetype repeated() const { return again; }
    qsizetype consumedUpTo() const { return taken; }

private:
    const QByteArray stream;
    qsizetype seen = 0; // offered up to here
    qsizetype taken = 0; // consumed up to here
    qsizetype skipped = 0;
    qsizetype wrong = 0;
    qsizetype again = 0;
};
