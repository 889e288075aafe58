// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include "recording/entry.h"

#include <QtCore/QByteArray>
#include <QtCore/QByteArrayView>

namespace recording {

/*!
    What surrounds entries in a file: the file's header, and for each entry its check sums.
    docs/RECORDING.md describes it.
*/

constexpr quint16 Version = 1;
constexpr qsizetype HeaderBytes = 16;

QByteArray fileHeader();

enum class HeaderCheck {
    Good,
    Cut, // the beginning of a good one
    OtherVersion,
    Damaged, // begins like a recording
    Foreign, // no recording
};
// bytes: the file's first ones; no more than HeaderBytes.
HeaderCheck checkHeader(QByteArrayView bytes);

// A frame is: the entry's type and size, the crc8 of these, the crc32c of the entry, its body.
constexpr qsizetype FrameHeadBytes = EntryHeadBytes + 1 + 4;

// Appends the frame of one entry.
void appendFrame(QByteArray &out, const RawEntry &entry);

// Whether as much of a frame's head as is given can be right: FrameHeadBytes, or fewer at the end
// of a file. A damaged size must not pass for an entry that the end of the file has cut.
bool isFrameHead(QByteArrayView head);
// head: FrameHeadBytes. Whether the body belongs to it.
bool isBodyOf(QByteArrayView head, QByteArrayView body);

} // namespace recording
