// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include <QtCore/QByteArrayView>

namespace host {

/*!
    Framing: where messages end in a stream of bytes. The plugin knows no framing: that is the
    host's part.

    Functions over a view of the unconsumed bytes, with a small state for each connection; nothing
    here knows of offers, records or sockets.

    Thread: any; no shared state.
*/
enum class Framing {
    Lines, // up to LF; one CR before it is dropped
    Length, // after a byte count: 4 bytes, big-endian
    None, // all that is there is one message
};

struct FrameFormat
{
    Framing framing = Framing::Lines;
    // In bytes, without framing. A longer message is skipped to its end; with Framing::None there
    // is no end to find, and the limit has no meaning.
    qint64 maxMessage = 1 << 20;
};

//! What has to be remembered of one connection between two calls of takeFrame().
struct FrameState
{
    qsizetype searched = 0; // bytes at the front that hold no line end
    bool skippingLine = false; // inside a line that is too long
    qint64 skipBytes = 0; // still to come of a length-prefixed message that is too long

    bool isSkipping() const { return skippingLine || skipBytes > 0; }
};

struct Frame
{
    enum Kind {
        Incomplete, // no message yet, nothing taken
        Complete,
        TooLong, // the first piece of a message beyond the limit, maybe all of it
        Skipped, // a further piece of it
    };

    Kind kind = Incomplete;
    qsizetype size = 0; // bytes taken from the front, framing included
    QByteArrayView message; // if Complete
};

// The first frame in the buffer. The caller takes its bytes from the front and calls again, until a
// frame is Incomplete or nothing is left. The next buffer must begin with the bytes that were left.
Frame takeFrame(QByteArrayView buffer, const FrameFormat &format, FrameState &state);

// rest: the beginning of a message. next: the bytes after it. Returns how many of the next bytes to
// append to the rest before takeFrame() is called again: at least 1, unless next is empty.
// takeFrame() then takes all or nothing, since no byte behind the message is appended.
qsizetype bytesToAppend(QByteArrayView rest, QByteArrayView next, const FrameFormat &format);

// Gives up the message that begins with the rest: its further bytes are skipped. False if its end
// cannot be found: with Framing::None, or before its length prefix is complete. Then nothing
// changes.
bool abandonMessage(QByteArrayView rest, const FrameFormat &format, FrameState &state);

// rest: what takeFrame() left, the beginning of a message. Returns its bytes without framing.
QByteArrayView partialMessage(QByteArrayView rest, const FrameFormat &format);

} // namespace host
