// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "simulator/framing.h"

#include "programs/hexbyte.h"

#include <QtCore/QStringList>

#include <limits>

namespace simulator {
namespace {

constexpr int LargestFixed = 64 * 1024 * 1024;
constexpr int BitsOfAByte = 8;

} // namespace

using programs::hexByte;

std::optional<Framing> Framing::read(const QString &text)
{
    const QStringList words = text.simplified().split(QLatin1Char(' '));
    const QString &name = words.first();
    Framing framing;
    bool ok = words.size() == 1;
    if (name == QLatin1String("crlf"))
        framing.type = CrLf;
    else if (name == QLatin1String("none"))
        framing.type = None;
    else if (name == QLatin1String("hdlc"))
        ok = ok && framing.readMarks(QStringLiteral("marks 7e 7e 7d 20").split(QLatin1Char(' ')));
    else if (name == QLatin1String("length"))
        ok = framing.readLength(words);
    else if (name == QLatin1String("fixed"))
        ok = framing.readFixed(words);
    else if (name == QLatin1String("marks"))
        ok = framing.readMarks(words);
    else
        ok = ok && name == QLatin1String("lines");
    return ok ? std::optional(framing) : std::nullopt;
}

bool Framing::readLength(const QStringList &words)
{
    type = Length;
    size = words.value(1, QStringLiteral("4")).toInt();
    const QString order = words.value(2, QStringLiteral("big"));
    isBigEndian = order == QLatin1String("big");
    countsItself = words.size() == 4;
    return (size == 1 || size == 2 || size == 4)
            && (isBigEndian || order == QLatin1String("little"))
            && words.value(3, QStringLiteral("all")) == QLatin1String("all") && words.size() <= 4;
}

bool Framing::readFixed(const QStringList &words)
{
    type = Fixed;
    size = words.value(1).toInt();
    const auto filling = hexByte(words.value(2, QStringLiteral("00")));
    fill = filling.value_or(0);
    return size >= 1 && size <= LargestFixed && filling && words.size() <= 3;
}

bool Framing::readMarks(const QStringList &words)
{
    type = Marks;
    const auto first = hexByte(words.value(1));
    const auto last = hexByte(words.value(2));
    escape = hexByte(words.value(3));
    const auto flipped = hexByte(words.value(4, QStringLiteral("00")));
    if (!first || !last || !flipped || words.size() > 5 || (words.size() > 3 && !escape))
        return false;
    start = *first;
    end = *last;
    flip = *flipped;
    return !escape || (*escape != start && *escape != end);
}

qint64 Framing::longestPayload() const
{
    if (type == Fixed)
        return size;
    if (type != Length)
        return std::numeric_limits<qint64>::max();
    const qint64 most = (qint64(1) << (BitsOfAByte * size)) - 1;
    return countsItself ? most - size : most;
}

bool Framing::fits(qsizetype payloadBytes) const
{
    return payloadBytes <= longestPayload() && (payloadBytes > 0 || type != None);
}

qsizetype Framing::overhead() const
{
    switch (type) {
    case Lines:
        return 1;
    case CrLf:
    case Marks:
        return 2;
    case Length:
        return size;
    case Fixed:
    case None:
        break;
    }
    return 0;
}

bool Framing::append(QByteArray &out, QByteArrayView payload) const
{
    if (!fits(payload.size()))
        return false;
    switch (type) {
    case Lines:
        out += payload;
        out += '\n';
        break;
    case CrLf:
        out += payload;
        out += "\r\n";
        break;
    case Length:
        appendLength(out, payload.size());
        out += payload;
        break;
    case Fixed:
        out += payload;
        out.append(size - payload.size(), fill);
        break;
    case Marks:
        out += start;
        appendEscaped(out, payload);
        out += end;
        break;
    case None:
        out += payload;
    }
    return true;
}

void Framing::appendLength(QByteArray &out, qsizetype payloadBytes) const
{
    const qsizetype length = countsItself ? payloadBytes + size : payloadBytes;
    for (int i = 0; i < size; ++i) {
        const int shift = BitsOfAByte * (isBigEndian ? size - 1 - i : i);
        out += static_cast<char>(length >> shift);
    }
}

void Framing::appendEscaped(QByteArray &out, QByteArrayView payload) const
{
    if (!escape) {
        out += payload;
        return;
    }
    for (const char byte : payload) {
        const bool isMark = byte == start || byte == end || byte == *escape;
        if (isMark)
            out += *escape;
        out += isMark ? static_cast<char>(byte ^ flip) : byte;
    }
}

} // namespace simulator
