// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include <QtCore/QByteArray>
#include <QtCore/QByteArrayView>
#include <QtCore/QtGlobal>

#include <limits>
#include <optional>

namespace recording {

//! Both ends of a connection. Addresses are texts, IPv6 without brackets.
struct Endpoints
{
    QByteArray peer;
    quint16 peerPort = 0;
    QByteArray local;
    quint16 localPort = 0;

    bool operator==(const Endpoints &other) const
    {
        return peer == other.peer && peerPort == other.peerPort && local == other.local
                && localPort == other.localPort;
    }
};

/*!
    One thing that a recording tells. docs/RECORDING.md says how it is written.

    Thread: any; a value.
*/
struct Entry
{
    enum Type : quint8 {
        Session = 1, // what was open before is over, unless it is repeated after this
        Begin = 2, // of a connection
        Bytes = 3, // that a connection has brought
        Length = 4, // the same without the bytes themselves
        End = 5, // of a connection
        Gap = 6, // here the recorder could not keep up
        Block = 7, // holds other entries, compressed; no reader returns one
    };

    Type type = Session; // a reader returns none but those above
    qint64 elapsedUs = 0; // microseconds since the entry before
    qint64 timeUs = 0; // microseconds since 1970 in UTC; in Session written, else set by the reader

    quint64 connection = 0; // Begin, Bytes, Length, End: its number, unique within a session
    quint64 position = 0; // the same: how many of the connection's bytes come before
    quint64 size = 0; // Bytes, Length: how many; Gap: how many bytes are missing
    quint64 entries = 0; // Gap: how many entries are missing
    QByteArray bytes; // Bytes
    QByteArray reason; // End: as the plugin tells it, "peer" for example
    Endpoints endpoints; // Begin
    bool continues = false; // Session: goes on from another file, or after a failure
    bool leavesOutPayload = false; // Session
    bool wasOpen = false; // Begin: repeated, since the connection is older than the session
};

// Largest body of an entry. A larger one is damage.
constexpr qsizetype MaxBodyBytes = 1024 * 1024;
// Most bytes of a connection in one entry; appendBytes() makes several of more.
constexpr qsizetype MaxPieceBytes = 256 * 1024;
// Longer times are damage. The sum of two is in range.
constexpr qint64 MaxTimeUs = std::numeric_limits<qint64>::max() / 4;
// Addresses and reasons are cut to this.
constexpr qsizetype MaxTextBytes = 1024;

// An entry is: its type, the size of its body (three bytes, least significant first), the body.
constexpr qsizetype EntryHeadBytes = 1 + 3;

void appendEntry(QByteArray &out, const Entry &entry);
// body: at most MaxBodyBytes.
void appendEntry(QByteArray &out, Entry::Type type, QByteArrayView body);

// Appends Bytes, or with withPayload false Length: for the same entries the cheaper way.
void appendBytes(QByteArray &out, qint64 elapsedUs, quint64 connection, quint64 position,
                 QByteArrayView payload, bool withPayload);

// head: EntryHeadBytes or more, from an entry's first byte on.
qsizetype bodySizeOf(QByteArrayView head);

//! An entry's type and body, not looked into.
struct RawEntry
{
    quint8 type = 0;
    QByteArrayView body;
    QByteArrayView whole; // with type and size
};

// Takes the first entry from the front of bytes. Nothing, and bytes stay, if none is whole there.
std::optional<RawEntry> takeEntry(QByteArrayView &bytes);

// Nothing if the body is not what its type promises. An unknown type gives its time and no more.
std::optional<Entry> parseEntry(const RawEntry &raw);

// Empties a buffer of entries. Its memory stays for the next ones, unless it is large.
inline void emptyBuffer(QByteArray &buffer)
{
    constexpr qsizetype LargeBytes = 4 * 1024 * 1024;
    if (buffer.capacity() > LargeBytes)
        buffer = QByteArray();
    else
        buffer.truncate(0);
}

//! How much of what connections did.
struct Amount
{
    quint64 bytes = 0;
    quint64 entries = 0;
};

// How much the entries tell of, what they call missing included.
Amount amountIn(QByteArrayView entries);

} // namespace recording
