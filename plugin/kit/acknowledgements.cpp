// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "plugin/kit/acknowledgements.h"

#include "plugin/decimalnumber.h"
#include "plugin/subids.h"

#include <algorithm>

namespace inputkit {

void Acknowledgements::handedOut(quint64 connection, quint64 end)
{
    connections[connection].handedOut = end;
}

void Acknowledgements::answered(int length, const QMap<QString, QString> &subId)
{
    const ExactOffers::Place place{subids::Values(subId)};
    const quint64 read = place.offset.value_or(0) + static_cast<quint64>(length);
    Connection &connection = connections[place.connection];
    connection.subId = subId;
    connection.offset = place.offset.value_or(0);
    connection.read = std::max(connection.read, read);
    cut(connection);
}

void Acknowledgements::acknowledge(quint64 connection, quint64 end)
{
    const auto known = connections.find(connection);
    if (known == connections.end())
        return;
    // No more than was handed out: the rest may hold messages that nobody has seen.
    known->acknowledged = std::max(known->acknowledged, std::min(end, known->handedOut));
    cut(*known);
}

void Acknowledgements::cut(Connection &connection) const
{
    const bool isAll = connection.acknowledged >= connection.handedOut;
    const quint64 target = isAll ? connection.read : connection.acknowledged;
    if (target <= connection.cut || target <= connection.offset || connection.subId.isEmpty())
        return;
    connection.cut = target;
    answer(static_cast<int>(target - connection.offset), connection.subId);
}

} // namespace inputkit
