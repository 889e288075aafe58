// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "hostcheck/parser/framing.h"

#include "programs/hexbyte.h"

#include <QtCore/QStringList>

#include <algorithm>

namespace hostcheck {
namespace {

constexpr int LargestFixed = 1 << 20;

} // namespace

using programs::hexByte;

std::optional<Framing> Framing::read(const QString &text)
{
    const QStringList words = text.simplified().split(QLatin1Char(' '));
    const QString &name = words.first();
    Framing result;
    if (name == QLatin1String("lines") && words.size() == 1)
        return result;

    const int number = words.value(1).toInt();
    if (name == QLatin1String("fixed") && words.size() == 2 && number > 0
        && number <= LargestFixed) {
        result.kind = Fixed;
        result.size = number;
        return result;
    }
    if (name == QLatin1String("length") && (words.size() == 3 || words.size() == 4)) {
        const QString &order = words.at(2);
        result.kind = Length;
        result.size = number;
        result.isBigEndian = order == QLatin1String("big");
        result.countsItself = words.size() == 4;
        const bool isKnown = (number == 1 || number == 2 || number == 4)
                && (result.isBigEndian || order == QLatin1String("little"))
                && words.value(3, QStringLiteral("all")) == QLatin1String("all");
        return isKnown ? std::optional(result) : std::nullopt;
    }
    if (name == QLatin1String("marks") && words.size() == 4) {
        const auto start = hexByte(words.at(1));
        const auto end = hexByte(words.at(2));
        const auto escape = hexByte(words.at(3));
        if (!start || !end || !escape || start == end || end == escape || start == escape)
            return std::nullopt;
        result.kind = Marks;
        result.start = *start;
        result.end = *end;
        result.escape = *escape;
        return result;
    }
    return std::nullopt;
}

qsizetype Framing::next(QByteArrayView bytes) const
{
    switch (kind) {
    case Lines:
        return bytes.indexOf('\n') + 1;
    case Length:
        return nextLength(bytes);
    case Fixed:
        return bytes.size() >= size ? size : 0;
    case Marks:
        return nextMarks(bytes);
    }
    return 0;
}

qsizetype Framing::nextLength(QByteArrayView bytes) const
{
    if (bytes.size() < size)
        return 0;
    qsizetype count = 0;
    for (qsizetype i = 0; i < size; ++i) {
        const auto byte = static_cast<uchar>(bytes[isBigEndian ? i : size - 1 - i]);
        count = count * 256 + byte;
    }
    if (countsItself && count < size)
        return 0; // no message can be so short
    const qsizetype whole = countsItself ? count : count + size;
    return bytes.size() >= whole ? whole : 0;
}

qsizetype Framing::nextMarks(QByteArrayView bytes) const
{
    if (bytes.isEmpty() || bytes[0] != start)
        return 0;
    for (qsizetype i = 1; i < bytes.size(); ++i) {
        if (bytes[i] == end)
            return i + 1;
        if (bytes[i] == escape)
            ++i; // the next byte is no mark
    }
    return 0;
}

QByteArray Framing::wrap(QByteArray content) const
{
    switch (kind) {
    case Lines:
        return content.replace('\n', ' ') + '\n';
    case Length:
        return wrapLength(content);
    case Fixed:
        return content.leftJustified(size, '.', true);
    case Marks:
        return wrapMarks(content);
    }
    return content;
}

QByteArray Framing::wrapLength(QByteArray content) const
{
    const qsizetype own = countsItself ? size : 0;
    const qsizetype largest = (qsizetype(1) << (8 * size)) - 1;
    content.truncate(largest - own);
    QByteArray count;
    for (qsizetype i = 0; i < size; ++i) {
        const qsizetype shift = 8 * (isBigEndian ? size - 1 - i : i);
        count += static_cast<char>((content.size() + own) >> shift);
    }
    return count + content;
}

QByteArray Framing::wrapMarks(const QByteArray &content) const
{
    QByteArray message(1, start);
    for (const char c : content) {
        if (c == start || c == end || c == escape)
            message += escape;
        message += c;
    }
    return message + end;
}

QByteArray Framing::content(const QByteArray &message) const
{
    switch (kind) {
    case Lines: {
        QByteArray line = message.chopped(1);
        if (line.endsWith('\r'))
            line.chop(1);
        return line;
    }
    case Length:
        return message.mid(size);
    case Fixed:
        return message;
    case Marks:
        break;
    }
    QByteArray result;
    for (qsizetype i = 1; i < message.size() - 1; ++i) {
        if (message[i] == escape)
            ++i;
        result += message[i];
    }
    return result;
}

QByteArrayList Framing::contents(const QByteArray &bytes) const
{
    QByteArrayList result;
    qsizetype position = 0;
    while (const qsizetype length = next(QByteArrayView(bytes).sliced(position))) {
        result += content(bytes.mid(position, length));
        position += length;
    }
    return result;
}

} // namespace hostcheck
