// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "host/counters.h"

#include <QtCore/QHashFunctions>

namespace host {
namespace {
constexpr qsizetype MaxSeenIds = 1000000;
}

void Counters::addConnection(QStringView clientId)
{
    if (seenIds.size() == MaxSeenIds) {
        earlierIds += seenIds.size();
        seenIds.clear();
    }
    seenIds.insert(qHash(clientId, 0));
}

QString Counters::line() const
{
    return QStringLiteral("messages %1 bytes %2 connections %3")
            .arg(messages)
            .arg(bytes)
            .arg(connections());
}

QString Counters::longLine() const
{
    return line()
            + QStringLiteral(" partial %1 too-long %2 offers %3")
                      .arg(partial)
                      .arg(tooLong)
                      .arg(offers);
}

} // namespace host
