// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "host/harmless.h"

#include <algorithm>

namespace host {
namespace {

constexpr char16_t FirstPrintable = 0x20;

bool isHarmful(char16_t unit)
{
    const auto isIn = [unit](char16_t first, char16_t last) {
        return unit >= first && unit <= last;
    };
    return unit < FirstPrintable || isIn(0x7f, 0x9f) || unit == 0x61c || isIn(0x200e, 0x200f)
            || isIn(0x2028, 0x202e) || isIn(0x2066, 0x2069) || unit == 0xfeff;
}

QString escapeOf(char16_t unit)
{
    switch (unit) {
    case u'\n':
        return QStringLiteral("\\n");
    case u'\r':
        return QStringLiteral("\\r");
    case u'\t':
        return QStringLiteral("\\t");
    default:
        return QStringLiteral("\\u%1").arg(unit, 4, 16, QLatin1Char('0'));
    }
}

// The first bytes of the characters above, but for DEL: C2 80 to C2 9F, D8 9C, E2 80 .., E2 81 ..,
// EF BB BF.
bool mayBegin(char byte)
{
    switch (static_cast<unsigned char>(byte)) {
    case 0x7f:
    case 0xc2:
    case 0xd8:
    case 0xe2:
    case 0xef:
        return true;
    default:
        return false;
    }
}

qsizetype lengthOf(char first)
{
    const auto byte = static_cast<unsigned char>(first);
    return byte < 0x80 ? 1 : byte < 0xe0 ? 2 : 3;
}

// By hand: QString::fromUtf8() leaves out a byte order mark.
char16_t unitOf(QByteArrayView character)
{
    constexpr unsigned ContinuationBits = 6;
    constexpr unsigned ContinuationMask = 0x3f;
    constexpr unsigned FirstMasks[] = {0x7f, 0x1f, 0x0f};
    unsigned unit =
            static_cast<unsigned char>(character.front()) & FirstMasks[character.size() - 1];
    for (const char byte : character.sliced(1))
        unit = unit << ContinuationBits | (static_cast<unsigned char>(byte) & ContinuationMask);
    return static_cast<char16_t>(unit);
}

} // namespace

QString harmless(const QString &text)
{
    const auto isBad = [](QChar character) { return isHarmful(character.unicode()); };
    if (std::none_of(text.begin(), text.end(), isBad))
        return text;
    QString result;
    for (const QChar character : text) {
        if (isBad(character))
            result += escapeOf(character.unicode());
        else
            result += character;
    }
    return result;
}

qsizetype sizeOfHarmful(QByteArrayView utf8)
{
    if (utf8.isEmpty() || !mayBegin(utf8.front()))
        return 0;
    const qsizetype length = lengthOf(utf8.front());
    return length <= utf8.size() && isHarmful(unitOf(utf8.first(length))) ? length : 0;
}

QByteArray jsonEscape(QByteArrayView utf8)
{
    return "\\u" + QByteArray::number(unitOf(utf8), 16).rightJustified(4, '0');
}

QByteArray harmlessJson(QByteArray json)
{
    if (std::none_of(json.cbegin(), json.cend(), mayBegin))
        return json;
    QByteArray result;
    for (qsizetype at = 0; at < json.size();) {
        const QByteArrayView rest = QByteArrayView(json).sliced(at);
        const qsizetype size = sizeOfHarmful(rest);
        if (size > 0)
            result += jsonEscape(rest.first(size));
        else
            result += rest.front();
        at += std::max<qsizetype>(size, 1);
    }
    return result;
}

} // namespace host
