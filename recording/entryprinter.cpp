// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "recording/entryprinter.h"

#include <QtCore/QDateTime>
#include <QtCore/QJsonDocument>
#include <QtCore/QJsonObject>

namespace recording {
namespace {

constexpr qsizetype HexBytesALine = 16;
constexpr int PositionDigits = 8;
constexpr qint64 UsPerSecond = 1'000'000;

const char *nameOf(Entry::Type type)
{
    switch (type) {
    case Entry::Session:
        return "session";
    case Entry::Begin:
        return "begin";
    case Entry::Bytes:
        return "bytes";
    case Entry::Length:
        return "length";
    case Entry::End:
        return "end";
    case Entry::Gap:
        return "gap";
    case Entry::Block:
        break;
    }
    return "unknown";
}

// To the microsecond, which Qt's formats do not have.
QByteArray timeText(qint64 timeUs)
{
    const QDateTime second = QDateTime::fromSecsSinceEpoch(timeUs / UsPerSecond, Qt::UTC);
    const QByteArray fraction = QByteArray::number(timeUs % UsPerSecond).rightJustified(6, '0');
    return second.toString(QStringLiteral("yyyy-MM-ddTHH:mm:ss")).toLatin1() + '.' + fraction + 'Z';
}

bool isPrintable(char byte)
{
    return byte >= ' ' && byte <= '~';
}

QByteArray escaped(const QByteArray &bytes)
{
    QByteArray text;
    for (const char byte : bytes) {
        if (byte == '\n')
            text += "\\n";
        else if (byte == '\r')
            text += "\\r";
        else if (byte == '\t')
            text += "\\t";
        else if (byte == '"' || byte == '\\')
            text += QByteArray("\\") + byte;
        else if (isPrintable(byte))
            text += byte;
        else
            text += "\\x" + QByteArray(1, byte).toHex();
    }
    return text;
}

QByteArray quoted(const QByteArray &bytes)
{
    return '"' + escaped(bytes) + '"';
}

QByteArray hexLines(const Entry &entry)
{
    QByteArray lines;
    for (qsizetype at = 0; at < entry.bytes.size(); at += HexBytesALine) {
        const QByteArray part = entry.bytes.mid(at, HexBytesALine);
        const quint64 position = entry.position + static_cast<quint64>(at);
        QByteArray letters = part;
        for (char &byte : letters)
            byte = isPrintable(byte) ? byte : '.';
        lines += "  " + QByteArray::number(position, 16).rightJustified(PositionDigits, '0') + "  "
                + part.toHex(' ').leftJustified(3 * HexBytesALine - 1) + "  " + letters + '\n';
    }
    return lines;
}

QByteArray endpoint(const QByteArray &address, quint16 port)
{
    const bool isV6 = address.contains(':');
    const QByteArray text = escaped(address); // a file may hold anything
    return (isV6 ? '[' + text + ']' : text) + ':' + QByteArray::number(port);
}

// What a line has behind the entry's name.
QByteArray details(const Entry &entry, EntryStyle style)
{
    const QByteArray place =
            QByteArray::number(entry.connection) + " at " + QByteArray::number(entry.position);
    const Endpoints &ends = entry.endpoints;
    switch (entry.type) {
    case Entry::Session:
        return QByteArray(entry.continues ? "goes on" : "begins")
                + (entry.leavesOutPayload ? ", without payload" : "");
    case Entry::Begin:
        return place + ", from " + endpoint(ends.peer, ends.peerPort) + " to "
                + endpoint(ends.local, ends.localPort) + (entry.wasOpen ? ", open before" : "");
    case Entry::Bytes:
        return place + ", " + QByteArray::number(entry.size)
                + (style == EntryStyle::Hex ? QByteArray() : ": " + quoted(entry.bytes));
    case Entry::Length:
        return place + ", " + QByteArray::number(entry.size);
    case Entry::End:
        return place + ", " + quoted(entry.reason);
    default:
        return QByteArray::number(entry.size) + " bytes, " + QByteArray::number(entry.entries)
                + " entries";
    }
}

QByteArray line(const Entry &entry, EntryStyle style)
{
    return timeText(entry.timeUs) + ' ' + nameOf(entry.type) + ' ' + details(entry, style) + '\n';
}

// Numbers are exact up to 2^53.
qint64 jsonNumber(quint64 value)
{
    return static_cast<qint64>(value);
}

void addBytes(QJsonObject &object, const QByteArray &bytes)
{
    const QString text = QString::fromUtf8(bytes);
    if (text.toUtf8() == bytes && !text.contains(QChar::Null))
        object.insert(QStringLiteral("text"), text);
    else
        object.insert(QStringLiteral("base64"), QString::fromLatin1(bytes.toBase64()));
}

void addDetails(QJsonObject &object, const Entry &entry)
{
    const Endpoints &ends = entry.endpoints;
    switch (entry.type) {
    case Entry::Session:
        object.insert(QStringLiteral("continues"), entry.continues);
        object.insert(QStringLiteral("payload"), !entry.leavesOutPayload);
        return;
    case Entry::Gap:
        object.insert(QStringLiteral("bytes"), jsonNumber(entry.size));
        object.insert(QStringLiteral("entries"), jsonNumber(entry.entries));
        return;
    default:
        break;
    }
    object.insert(QStringLiteral("connection"), jsonNumber(entry.connection));
    object.insert(QStringLiteral("position"), jsonNumber(entry.position));
    if (entry.type == Entry::Begin) {
        object.insert(QStringLiteral("peer"), QString::fromUtf8(ends.peer));
        object.insert(QStringLiteral("peerPort"), ends.peerPort);
        object.insert(QStringLiteral("local"), QString::fromUtf8(ends.local));
        object.insert(QStringLiteral("localPort"), ends.localPort);
        object.insert(QStringLiteral("wasOpen"), entry.wasOpen);
    } else if (entry.type == Entry::End) {
        object.insert(QStringLiteral("reason"), QString::fromUtf8(entry.reason));
    } else {
        object.insert(QStringLiteral("bytes"), jsonNumber(entry.size));
    }
    if (entry.type == Entry::Bytes)
        addBytes(object, entry.bytes);
}

} // namespace

QByteArray printed(const Entry &entry, EntryStyle style)
{
    if (style != EntryStyle::Json)
        return line(entry, style) + (style == EntryStyle::Hex ? hexLines(entry) : QByteArray());
    QJsonObject object{
            {QStringLiteral("type"), QLatin1String(nameOf(entry.type))},
            {QStringLiteral("time"), QString::fromLatin1(timeText(entry.timeUs))},
    };
    addDetails(object, entry);
    return QJsonDocument(object).toJson(QJsonDocument::Compact) + '\n';
}

} // namespace recording
