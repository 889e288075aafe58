// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include "recording/entry.h"

#include <QtCore/QByteArray>

namespace recording {

enum class EntryStyle { Text, Hex, Json };

/*!
    Shows entries to people and programs.

    Text: a line an entry, with its time in UTC; bytes in quotes, those that are not printable ASCII
    escaped as in C. Hex: the same lines, and behind that of bytes sixteen of them a line. Json: an
    object a line.

    Thread: any.
*/
QByteArray printed(const Entry &entry, EntryStyle style);

} // namespace recording
