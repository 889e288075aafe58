// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include <QtCore/QByteArray>
#include <QtCore/QByteArrayView>
#include <QtCore/QSysInfo>

#include <functional>
#include <memory>
#include <optional>

namespace inputkit {

//! What has to be remembered of one connection between two calls of Framing::take().
struct FrameState
{
    qsizetype searched = 0; // bytes at the front that hold no end of a message
    bool skipping = false; // inside a message that is too long; its end is to be searched for
    qint64 skipBytes = 0; // still to come of a message that is too long, and tells its length
    qsizetype wanted = 0; // fewer bytes than that hold no whole message
    bool between = false; // behind bytes between two messages, to which the next ones may belong

    bool isSkipping() const { return skipping || skipBytes > 0 || between; }
};

//! What lies at the front of a connection's bytes.
struct Frame
{
    enum Kind {
        Incomplete, // no message yet, nothing taken
        Complete,
        TooLong, // the first piece of a message beyond the limit, maybe all of it
        Skipped, // a further piece of it
        Bad, // no message: it failed a check, or lies between two messages
    };

    Kind kind = Incomplete;
    qsizetype size = 0; // bytes taken from the front, framing included
    QByteArrayView message; // if Complete, without framing; if Bad, all that was taken
    bool continues = false; // if Bad, it goes on with the one before: both count once
};

/*!
    Where messages end in a stream of bytes. The plugin knows no framing: that is the host's part.

    An object knows nothing of connections, so one serves all of them; what must be kept of each is
    in its FrameState. Nothing here knows of offers, records or sockets.

    Thread: any; an object never changes.
    Owner:  shared by those that use it.
*/
class Framing
{
public:
    Framing() = default;
    virtual ~Framing() = default;
    Q_DISABLE_COPY_MOVE(Framing)

    // The first frame in the buffer. The caller takes its bytes from the front and calls again,
    // until a frame is Incomplete or nothing is left. The next buffer must begin with the bytes
    // that were left.
    virtual Frame take(QByteArrayView buffer, FrameState &state) const = 0;

    // rest: the beginning of a message. next: the bytes after it, at least one. Returns how many of
    // the next bytes to append to the rest before take() is called again, at least 1. The fewer,
    // the less is copied; the more, the less often take() begins anew.
    virtual qsizetype bytesToAppend(QByteArrayView rest, QByteArrayView next) const;

    // Gives up the message that begins with the rest: its further bytes are skipped. False if its
    // end cannot be found; then nothing changes.
    virtual bool abandon(QByteArrayView rest, FrameState &state) const;

    // rest: what take() left, the beginning of a message. Returns its bytes without framing.
    virtual QByteArrayView partial(QByteArrayView rest) const;
};

//! As the functions below return it.
using SharedFraming = std::shared_ptr<const Framing>;

// The size of the message at the front of the view, framing included; at least one byte is there.
// 0: its end is not there yet, ask again when more has come. A negative number: likewise, but not
// before so many bytes are there. It must give the same answer whenever it is asked.
using ConsumeFunction = std::function<qsizetype(QByteArrayView)>;

// Whether a message without its framing is what was sent: a checksum, for example.
using CheckFunction = std::function<bool(QByteArrayView)>;

//! What begins, ends and protects the messages of marked(). begin and end may be the same byte.
struct Marks
{
    char begin;
    char end;
    // The byte behind it is no mark, and is sent with the bits of flip inverted. Nothing: there is
    // no such byte.
    std::optional<char> escape = std::nullopt;
    char flip = 0;
};

//! The marks of HDLC in asynchronous lines, RFC 1662: 0x7e, and 0x7d with 0x20.
constexpr Marks HdlcMarks = {'\x7e', '\x7e', '\x7d', '\x20'};

// maxMessage of the functions below: in bytes, without framing, 1 to 1 GiB. A longer message is
// skipped to its end. A size that makes no sense ends the program: it is a mistake of the host's.
constexpr qint64 DefaultMaxMessage = 1 << 20;

//! Lines. LF or CR LF ends a line, and is not part of it.
SharedFraming lines(qint64 maxMessage = DefaultMaxMessage);

//! Each message follows its length in bytes. prefixBytes: 1, 2 or 4, the size of that number.
SharedFraming lengthPrefixed(int prefixBytes = 4, QSysInfo::Endian order = QSysInfo::BigEndian,
                             qint64 maxMessage = DefaultMaxMessage);

//! Messages between marks, as they were sent: see unescaped(). What lies between two messages is
//! Bad. If both marks are the same byte, one may end a message and begin the next, and there are no
//! empty messages.
SharedFraming marked(const Marks &marks = HdlcMarks, qint64 maxMessage = DefaultMaxMessage);

//! A message of marked() without its escapes. An escape at its very end is dropped.
QByteArray unescaped(QByteArrayView message, const Marks &marks = HdlcMarks);

//! Messages of one size: 1 or more bytes.
SharedFraming fixedSize(qsizetype size);

//! All bytes that are there are one message.
SharedFraming whole();

//! A function of the host's finds the end. A size beyond the view counts as all of it, and a
//! warning says so, once. maxMessage: with framing. If more bytes hold no end, all that are there
//! are skipped, and what follows counts as the beginning of a message: nobody knows where the next
//! one begins.
SharedFraming custom(ConsumeFunction consume, qint64 maxMessage = DefaultMaxMessage);

//! The messages of another framing; those that do not pass the check are Bad.
SharedFraming checked(SharedFraming framing, CheckFunction check);

} // namespace inputkit
