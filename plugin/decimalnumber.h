// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include <QtCore/QStringView>
#include <QtCore/qnumeric.h>

#include <optional>

// Reads a sub-id's text as a decimal number. Nothing if the text is empty, holds anything but
// digits, or is too large. QString::toULongLong() is slower, and also accepts signs and blanks.
inline std::optional<quint64> decimalNumber(QStringView text)
{
    if (text.isEmpty())
        return std::nullopt;
    quint64 number = 0;
    for (const QChar c : text) {
        const auto digit = static_cast<quint64>(c.unicode()) - '0';
        if (digit > 9 || qMulOverflow<quint64>(number, 10, &number)
            || qAddOverflow(number, digit, &number))
            return std::nullopt;
    }
    return number;
}
