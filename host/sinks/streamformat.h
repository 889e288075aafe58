// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include "host/framing.h"
#include "host/sinks/sink.h"

#include <QtCore/QByteArray>

namespace host {

/*!
    How messages look in a stream of bytes.

    Thread: any; never changes.
*/
class StreamFormat
{
public:
    enum Kind {
        Json, // one object a line
        Raw, // the bytes with the framing that they came with
    };

    StreamFormat(Kind outputKind, Framing inputFraming) : kind(outputKind), framing(inputFraming) {}

    // Whether messages are written with their origin.
    bool showsOrigins() const { return kind == Json; }
    // What all messages of that origin begin with. Empty, unless origins are shown.
    QByteArray headOf(const Origin &origin) const;

    // Raw: a partial message is left out, since a reader could not tell it from a whole one.
    void append(QByteArray &destination, const Message &message) const;

    // Messages are lines: whatever stands before a line end is one message.
    bool isLines() const { return kind == Json || framing == Framing::Lines; }

private:
    void appendRaw(QByteArray &destination, const Message &message) const;

    const Kind kind;
    const Framing framing;
};

} // namespace host
