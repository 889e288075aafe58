// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "recording/entry.h"

#include "recording/numbers.h"

#include <algorithm>
#include <limits>

namespace recording {
namespace {

constexpr quint64 Continues = 1; // flags of a Session
constexpr quint64 LeavesOutPayload = 2;
constexpr quint64 WasOpen = 1; // flag of a Begin

constexpr quint64 MaxPort = std::numeric_limits<quint16>::max();

void appendNumber(QByteArray &out, quint64 value)
{
    char bytes[MaxNumberBytes];
    out.append(bytes, putNumber(bytes, value) - bytes);
}

// Type and length; returns the position behind them.
char *putHead(char *out, Entry::Type type, qsizetype bodySize)
{
    *out++ = static_cast<char>(type);
    for (int shift = 0; shift < 24; shift += 8)
        *out++ = static_cast<char>(bodySize >> shift);
    return out;
}

void appendText(QByteArray &out, const QByteArray &text)
{
    const QByteArrayView cut = QByteArrayView(text).first(qMin(text.size(), MaxTextBytes));
    appendNumber(out, static_cast<quint64>(cut.size()));
    out.append(cut);
}

QByteArray takeText(Cursor &cursor)
{
    const auto size = static_cast<qsizetype>(cursor.takeNumber(MaxTextBytes));
    return cursor.take(size).toByteArray();
}

QByteArray bodyOf(const Entry &entry)
{
    QByteArray body;
    appendNumber(body, static_cast<quint64>(entry.elapsedUs));
    switch (entry.type) {
    case Entry::Session:
        appendNumber(body, static_cast<quint64>(entry.timeUs));
        appendNumber(body,
                     (entry.continues ? Continues : 0)
                             | (entry.leavesOutPayload ? LeavesOutPayload : 0));
        return body;
    case Entry::Gap:
        appendNumber(body, entry.size);
        appendNumber(body, entry.entries);
        return body;
    default:
        break;
    }
    appendNumber(body, entry.connection);
    appendNumber(body, entry.position);
    if (entry.type == Entry::Begin) {
        appendNumber(body, entry.wasOpen ? WasOpen : 0);
        appendText(body, entry.endpoints.peer);
        appendNumber(body, entry.endpoints.peerPort);
        appendText(body, entry.endpoints.local);
        appendNumber(body, entry.endpoints.localPort);
    } else if (entry.type == Entry::End) {
        appendText(body, entry.reason);
    }
    return body;
}

void parseBegin(Cursor &cursor, Entry &entry)
{
    entry.wasOpen = (cursor.takeNumber() & WasOpen) != 0;
    entry.endpoints.peer = takeText(cursor);
    entry.endpoints.peerPort = static_cast<quint16>(cursor.takeNumber(MaxPort));
    entry.endpoints.local = takeText(cursor);
    entry.endpoints.localPort = static_cast<quint16>(cursor.takeNumber(MaxPort));
}

void parseSession(Cursor &cursor, Entry &entry)
{
    entry.timeUs = static_cast<qint64>(cursor.takeNumber(MaxTimeUs));
    const quint64 flags = cursor.takeNumber();
    entry.continues = (flags & Continues) != 0;
    entry.leavesOutPayload = (flags & LeavesOutPayload) != 0;
}

void parseGap(Cursor &cursor, Entry &entry)
{
    entry.size = cursor.takeNumber();
    entry.entries = cursor.takeNumber();
}

// What begins with a connection's number and position.
void parseConnection(Cursor &cursor, Entry &entry)
{
    entry.connection = cursor.takeNumber();
    entry.position = cursor.takeNumber();
    switch (entry.type) {
    case Entry::Begin:
        return parseBegin(cursor, entry);
    case Entry::Bytes:
        entry.bytes = cursor.takeRest().toByteArray();
        entry.size = static_cast<quint64>(entry.bytes.size());
        return;
    case Entry::Length:
        entry.size = cursor.takeNumber();
        return;
    default:
        entry.reason = takeText(cursor);
    }
}

} // namespace

void appendEntry(QByteArray &out, const Entry &entry)
{
    if (entry.type == Entry::Bytes)
        return appendBytes(out, entry.elapsedUs, entry.connection, entry.position, entry.bytes,
                           true);
    QByteArray body = bodyOf(entry);
    if (entry.type == Entry::Length)
        appendNumber(body, entry.size);
    appendEntry(out, entry.type, body);
}

void appendEntry(QByteArray &out, Entry::Type type, QByteArrayView body)
{
    char head[EntryHeadBytes];
    out.append(head, putHead(head, type, body.size()) - head);
    out.append(body);
}

void appendBytes(QByteArray &out, qint64 elapsedUs, quint64 connection, quint64 position,
                 QByteArrayView payload, bool withPayload)
{
    do {
        const QByteArrayView piece = payload.first(qMin(payload.size(), MaxPieceBytes));
        const auto size = static_cast<quint64>(piece.size());
        char start[EntryHeadBytes + 4 * MaxNumberBytes];
        char *const numbers = start + EntryHeadBytes;
        char *end = putNumber(numbers, static_cast<quint64>(elapsedUs));
        end = putNumber(end, connection);
        end = putNumber(end, position);
        if (!withPayload)
            end = putNumber(end, size);
        putHead(start, withPayload ? Entry::Bytes : Entry::Length,
                (end - numbers) + (withPayload ? piece.size() : 0));
        const qsizetype begin = out.size();
        out.resize(begin + (end - start) + (withPayload ? piece.size() : 0));
        char *const at = std::copy(start, end, out.data() + begin);
        if (withPayload)
            std::copy(piece.begin(), piece.end(), at);

        payload = payload.sliced(piece.size());
        position += size;
        elapsedUs = 0;
    } while (!payload.isEmpty());
}

qsizetype bodySizeOf(QByteArrayView head)
{
    qsizetype size = 0;
    for (int byte = 1; byte < EntryHeadBytes; ++byte)
        size |= static_cast<qsizetype>(static_cast<quint8>(head[byte])) << (8 * (byte - 1));
    return size;
}

std::optional<RawEntry> takeEntry(QByteArrayView &bytes)
{
    if (bytes.size() < EntryHeadBytes)
        return {};
    const qsizetype bodySize = bodySizeOf(bytes);
    if (bodySize > MaxBodyBytes || bodySize > bytes.size() - EntryHeadBytes)
        return {};
    RawEntry raw;
    raw.type = static_cast<quint8>(bytes.front());
    raw.whole = bytes.first(EntryHeadBytes + bodySize);
    raw.body = raw.whole.sliced(EntryHeadBytes);
    bytes = bytes.sliced(raw.whole.size());
    return raw;
}

std::optional<Entry> parseEntry(const RawEntry &raw)
{
    Cursor cursor(raw.body);
    Entry entry;
    entry.type = static_cast<Entry::Type>(raw.type);
    entry.elapsedUs = static_cast<qint64>(cursor.takeNumber(MaxTimeUs));
    switch (raw.type) {
    case Entry::Session:
        parseSession(cursor, entry);
        break;
    case Entry::Gap:
        parseGap(cursor, entry);
        break;
    case Entry::Begin:
    case Entry::Bytes:
    case Entry::Length:
    case Entry::End:
        parseConnection(cursor, entry);
        break;
    default:
        break;
    }
    if (!cursor.isGood())
        return {};
    return entry; // what follows is from a newer writer, which may append to a body
}

Amount amountIn(QByteArrayView entries)
{
    Amount amount;
    while (const auto raw = takeEntry(entries)) {
        const Entry entry = parseEntry(*raw).value_or(Entry());
        amount.bytes += entry.size;
        amount.entries += entry.type == Entry::Gap ? entry.entries : 1;
    }
    return amount;
}

} // namespace recording
