// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include <QtCore/QByteArrayView>
#include <QtCore/QString>

namespace simulator {

//! A check sum that a message may carry.
struct Checksum
{
    const char *name;
    int bytes; // 1, 2 or 4
    quint32 (*compute)(QByteArrayView bytes);
};

// Null if there is none of that name.
const Checksum *findChecksum(QByteArrayView name);

// The names, with commas between them.
QString checksumNames();

} // namespace simulator
