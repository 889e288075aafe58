// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include <QtCore/QByteArrayView>
#include <QtCore/QtGlobal>

namespace recording {

// CRC-32C (Castagnoli): polynomial 0x1EDC6F41, reflected, begins and ends with all bits inverted.
// begun: that of the bytes before these.
quint32 crc32c(QByteArrayView bytes, quint32 begun = 0);
// The same on processors that have no instruction for it.
quint32 crc32cByTables(QByteArrayView bytes, quint32 begun = 0);

// CRC-8: polynomial 0x07, begins with 0xff. Finds every change of up to eight bits in a row.
quint8 crc8(QByteArrayView bytes);

} // namespace recording
