// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "simulator/numberform.h"

#include <QtCore/QRegularExpression>

#include <algorithm>

namespace simulator {
namespace {

constexpr int BitsOfAByte = 8;
constexpr int MostDigits = 20;

// Filled up with zeros behind the sign.
QByteArray filledUp(const QByteArray &digits, int width)
{
    const qsizetype sign = digits.startsWith('-') ? 1 : 0;
    const qsizetype missing = std::max<qsizetype>(0, width - (digits.size() - sign));
    return digits.first(sign) + QByteArray(missing, '0') + digits.sliced(sign);
}

} // namespace

std::optional<NumberForm> NumberForm::read(const QString &text)
{
    static const QRegularExpression digits(QStringLiteral("^(dec|hex|HEX)([1-9][0-9]?)?$"));
    static const QRegularExpression bytes(QStringLiteral("^u(?:8|(16|32|64)(be|le))$"));
    if (const QRegularExpressionMatch match = digits.match(text); match.hasMatch()) {
        const int width = match.captured(2).toInt();
        if (width > MostDigits)
            return std::nullopt;
        const QString base = match.captured(1);
        if (base == QLatin1String("dec"))
            return NumberForm(Decimal, width);
        return NumberForm(base == QLatin1String("hex") ? Hex : CapitalHex, width);
    }
    if (const QRegularExpressionMatch match = bytes.match(text); match.hasMatch()) {
        const int bits = std::max(BitsOfAByte, match.captured(1).toInt());
        return NumberForm(match.captured(2) == QLatin1String("le") ? LittleEndian : BigEndian,
                          bits / BitsOfAByte);
    }
    return std::nullopt;
}

NumberForm NumberForm::hexOf(int bytes)
{
    return {CapitalHex, 2 * bytes};
}

void NumberForm::append(QByteArray &out, qint64 number) const
{
    const auto bits = static_cast<quint64>(number);
    switch (type) {
    case Decimal:
        out += filledUp(QByteArray::number(number), width);
        return;
    case Hex:
        out += filledUp(QByteArray::number(bits, 16), width);
        return;
    case CapitalHex:
        out += filledUp(QByteArray::number(bits, 16).toUpper(), width);
        return;
    case BigEndian:
        for (int i = width - 1; i >= 0; --i)
            out += static_cast<char>(bits >> (BitsOfAByte * i));
        return;
    case LittleEndian:
        for (int i = 0; i < width; ++i)
            out += static_cast<char>(bits >> (BitsOfAByte * i));
    }
}

} // namespace simulator
