// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include "host/sinks/sql/keep.h"

#include <QtCore/QtGlobal>

#include <optional>

namespace host {

class SqliteFile;

/*!
    Removes what a file has more than it shall keep, a little at a time.

    Connections go when they are over and have no message left.

    Thread: the file's.
    Owner:  the caller.
*/
class SqliteKeeper
{
public:
    // file: open whenever a function is called.
    SqliteKeeper(SqliteFile &messageFile, const Keep &limits) : file(messageFile), keep(limits) {}

    // Within a transaction: removes so many of the oldest messages that are too old or too many.
    // Returns how many it has removed; nothing: the file says why.
    std::optional<qint64> removeMessages(qint64 atMost);
    // Likewise: looks at the next connections, and returns how many it has removed.
    std::optional<qint64> removeConnections();
    // Outside of a transaction: gives some of the free pages back. Returns how many; nothing: the
    // file says why.
    std::optional<qint64> giveBack();

private:
    std::optional<qint64> removeSome(qint64 atMost);
    bool freePages(qint64 pages);
    std::optional<bool> isTooLarge();
    // Milliseconds since 1970. What is older shall go.
    qint64 oldestTime() const;

    SqliteFile &file;
    const Keep keep;
    qint64 seenConnections = 0; // the last id that removeConnections() has looked at
};

} // namespace host
