// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include <QtCore/QStringView>
#include <QtCore/qnumeric.h>

#include <optional>

// The number that a sub-id's text stands for; none if it is anything but digits, or too large.
// QString's own reading takes longer, and also takes signs and blanks.
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
