// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "tcpinput/recordmaker.h"

#include "tcpinput/clientid.h"
#include "tcpinput/subids.h"

shared_parsedData RecordMaker::make(const Connection &c, const QString &id, const Stamp *stamp)
{
    nameEndpoints(c);
    nameClient(id, stamp);
    if (stamp) // copies nothing if the host has let go of the latest record
        subIds.insert(SubIds::offset(), QString::number(stamp->position));
    auto record = shared_parsedData::create();
    record->setPeerAddress(peerText);
    record->setPeerPort(peerPort);
    record->setOriginalMessage(c.getData());
    record->setSource(source);
    record->setPluginSubId(subIds);
    return record;
}

void RecordMaker::nameEndpoints(const Connection &c)
{
    const bool known = !source.isEmpty() && peerPort == c.getSenderPort()
            && localPort == c.getLocalPort() && peer == c.getSenderHost()
            && local == c.getLocalAddress();
    if (known)
        return;
    peer = c.getSenderHost();
    peerPort = c.getSenderPort();
    local = c.getLocalAddress();
    localPort = c.getLocalPort();
    peerText = peer.toString();
    source = QLatin1String("TCP:") + clientId(local.toString(), localPort, peerText, peerPort);
}

void RecordMaker::nameClient(const QString &id, const Stamp *stamp)
{
    if (!subIds.isEmpty() && client == id)
        return;
    client = id;
    subIds = {{SubIds::client(), id}, {SubIds::task(), QString::number(taskNumber)}};
    if (stamp)
        subIds.insert(SubIds::connection(), QString::number(stamp->connection));
}
