// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include "recording/entry.h"

#include <QtCore/QByteArray>

namespace recording {

enum class EntryStyle { Text, Hex, Json };

/*!
    Shows entries to people and programs.

    Text: a line an entry, with its time in UTC; bytes in quotes. In them and in addresses, bytes
   that are not printable ASCII are \n, \r, \t, or \x and two hexadecimal digits. Hex: the same
   lines, and behind that of bytes sixteen of them a line. Json: an object a line.

    Thread: any.
*/
QByteArray printed(const Entry &entry, EntryStyle style);

} // namespace recording
