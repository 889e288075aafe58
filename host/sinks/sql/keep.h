// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include <QtCore/QString>

#include <chrono>
#include <optional>

namespace host {

//! How much a store keeps. What exceeds it is removed, the oldest first.
struct Keep
{
    std::chrono::seconds age{0}; // 0: any
    qint64 bytes = 0; // of the database; 0: any

    bool isAll() const { return age.count() == 0 && bytes == 0; }
};

// A number with s, min, h or d for the age, or with MB or GB (powers of ten) for the size; or both,
// with a comma between them. Nothing if the text is anything else.
std::optional<Keep> parseKeep(const QString &text);

} // namespace host
