// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include <QtCore/QString>

#include <algorithm>
#include <optional>

namespace programs {

//! A byte of a command line: one or two digits in hex, either case. Nothing if it is anything else.
inline std::optional<char> hexByte(const QString &text)
{
    const auto isDigit = [](QChar letter) {
        const char16_t code = letter.unicode();
        return (code >= u'0' && code <= u'9') || (code >= u'a' && code <= u'f')
                || (code >= u'A' && code <= u'F');
    };
    if (text.isEmpty() || text.size() > 2 || !std::all_of(text.begin(), text.end(), isDigit))
        return std::nullopt;
    return static_cast<char>(text.toUInt(nullptr, 16));
}

} // namespace programs
