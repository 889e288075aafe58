// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "simulator/escapes.h"

namespace simulator {
namespace {

constexpr qsizetype HexEscapeBytes = 4; // \xNN

std::optional<Escape> hexEscape(QByteArrayView text)
{
    if (text.size() < HexEscapeBytes)
        return std::nullopt;
    const QByteArray digits = text.sliced(2, 2).toByteArray();
    const QByteArray byte = QByteArray::fromHex(digits);
    if (byte.toHex() != digits.toLower())
        return std::nullopt;
    return Escape{byte.at(0), HexEscapeBytes};
}

} // namespace

std::optional<Escape> escapeAt(QByteArrayView text)
{
    if (text.size() < 2)
        return std::nullopt;
    switch (text.at(1)) {
    case 'n':
        return Escape{'\n', 2};
    case 'r':
        return Escape{'\r', 2};
    case 't':
        return Escape{'\t', 2};
    case '0':
        return Escape{'\0', 2};
    case '\\':
    case '{':
        return Escape{text.at(1), 2};
    case 'x':
        return hexEscape(text);
    default:
        return std::nullopt;
    }
}

std::optional<QByteArray> withoutEscapes(QByteArrayView text, QString &error)
{
    QByteArray bytes;
    bytes.reserve(text.size());
    while (!text.isEmpty()) {
        Escape taken{text.front(), 1};
        if (text.front() == '\\') {
            const auto escape = escapeAt(text);
            if (!escape) {
                error = escapeError(text);
                return std::nullopt;
            }
            taken = *escape;
        }
        bytes += taken.byte;
        text = text.sliced(taken.size);
    }
    return bytes;
}

QString escapeError(QByteArrayView text)
{
    const bool isHex = text.size() > 1 && text.at(1) == 'x';
    const QByteArrayView shown =
            text.first(qMin<qsizetype>(text.size(), isHex ? HexEscapeBytes : 2));
    return QStringLiteral("unknown escape: %1; there are \\n, \\r, \\t, \\0, \\\\, \\{ and \\xNN")
            .arg(QString::fromUtf8(shown));
}

} // namespace simulator
