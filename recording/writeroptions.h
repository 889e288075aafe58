// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include <QtCore/QtGlobal>

namespace recording {

//! How a recording is written.
struct WriterOptions
{
    // A file of this size or more is the last of its number; what it repeats at its beginning does
    // not count. 0: no limit.
    qint64 fileBytes = 0;
    int keep = 0; // how many finished files stay; 0: all
    bool compress = false; // needs canCompress()
    bool withPayload = true; // told in the file; whoever makes the entries leaves it out
};

} // namespace recording
