// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include <QtCore/QHash>
#include <QtCore/QString>
#include <QtCore/QtGlobal>

namespace host {

//! A connection as the host knows it. A value.
struct ConnectionRow
{
    QString peer;
    unsigned short port = 0;
    qint64 sinceMs = 0; // when its first bytes were read; since the epoch
    qint64 lastMs = 0; // when the last ones were
    quint64 bytes = 0; // read
    quint64 safe = 0; // of these, up to the last message that is safe
};

// By the connection's number.
using ConnectionRows = QHash<quint64, ConnectionRow>;

} // namespace host
