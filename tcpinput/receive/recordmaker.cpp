// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "tcpinput/receive/recordmaker.h"

#include "plugin/subids.h"
#include "tcpinput/connection/clientid.h"

RecordMaker::RecordMaker(int task, const Endpoints &endpoints)
    : peerText(endpoints.peer.toString()),
      source(QLatin1String("TCP:")
             + clientId(endpoints.local.toString(), endpoints.localPort, peerText,
                        endpoints.peerPort)),
      taskNumber(task),
      peerPort(endpoints.peerPort)
{}

shared_parsedData RecordMaker::make(const QByteArray &data, const QString &id,
                                    const QDateTime &time, const Stamp *stamp)
{
    nameClient(id, stamp);
    if (stamp) // no copy if the host has released the latest record
        subIds.insert(subids::offset(), QString::number(stamp->position));
    return shared_parsedData::create(data, source, peerText, peerPort, subIds, time);
}

shared_parsedData RecordMaker::makeEnd(EndReason reason, const QString &id, const QDateTime &time,
                                       const Stamp *stamp)
{
    shared_parsedData record = make({}, id, time, stamp);
    record->addPluginSubId(subids::end(), textOf(reason));
    return record;
}

void RecordMaker::nameClient(const QString &id, const Stamp *stamp)
{
    if (!subIds.isEmpty() && client == id)
        return;
    client = id;
    subIds = {{subids::client(), id}, {subids::task(), QString::number(taskNumber)}};
    if (stamp)
        subIds.insert(subids::connection(), QString::number(stamp->connection));
}
