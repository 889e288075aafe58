// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include <QtCore/QString>

/*!
    The keys of a record's sub-ids, which route the host's answer back to the connection.

    Thread: any.
*/
namespace subids {

// The number of the task.
inline QString task()
{
    return QStringLiteral("task");
}

// The client id within the task.
inline QString client()
{
    return QStringLiteral("client");
}

// The number of the connection, unique in the process. Only with "offsets", like offset().
inline QString connection()
{
    return QStringLiteral("connection");
}

// How many of the connection's bytes lie before the first one of the record.
inline QString offset()
{
    return QStringLiteral("offset");
}

// Why the connection is over: "peer", "reset", "idle", "tls", "limit" or "stop". Only with "ends",
// in the last record of a connection, which has no bytes.
inline QString end()
{
    return QStringLiteral("end");
}

} // namespace subids
