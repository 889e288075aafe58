// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include <QtCore/QByteArray>
#include <QtCore/QByteArrayView>

/*!
    Knows the stream of one connection's device, and compares it with the bytes that the host gets.

    Thread: one at a time.
*/
class Oracle
{
public:
    explicit Oracle(const QByteArray &deviceStream) : stream(deviceStream) {}

    // The host was offered these bytes. position: where they should begin in the stream.
    void offered(qsizetype position, QByteArrayView bytes);

    // The host's parser was given bytes from this position on. Those that it had consumed before
    // are repeats.
    void parsed(qsizetype position, qsizetype length);

    // The parser has taken one message at this position.
    void consumed(qsizetype position, QByteArrayView message);

    // The position in the stream of an offer that has no position. Hosts cut only whole messages,
    // so an offer begins with a message's number. A shorter offer begins behind all consumed bytes.
    qsizetype positionOf(QByteArrayView offer) const;

    // total: number of bytes that the plugin should have offered.
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
