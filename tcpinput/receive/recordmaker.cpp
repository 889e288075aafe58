// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "tcpinput/receive/recordmaker.h"

#include "plugin/subids.h"
#include "tcpinput/connection/clientid.h"
#include "tcpinput/limits/heldbytes.h"

#include <utility>

namespace {

//! A record that counts as held until its last holder lets go of it.
class HeldRecord final : public ParsedData
{
public:
    template<class... Arguments>
    HeldRecord(std::shared_ptr<HeldBytes> heldBytes, const QByteArray &message,
               const Arguments &...arguments)
        : ParsedData(message, arguments...),
          held(std::move(heldBytes)),
          size(message.size()),
          number(held->lend(size))
    {}
    ~HeldRecord() { held->giveBack(number, size); }
    Q_DISABLE_COPY_MOVE(HeldRecord)

private:
    const std::shared_ptr<HeldBytes> held;
    const qint64 size;
    const quint64 number;
};

} // namespace

RecordMaker::RecordMaker(int task, const Endpoints &endpoints, std::shared_ptr<HeldBytes> heldBytes)
    : held(std::move(heldBytes)),
      peerText(endpoints.peer.toString()),
      source(QLatin1String("TCP:")
             + clientId(endpoints.local.toString(), endpoints.localPort, peerText,
                        endpoints.peerPort, endpoints.idNumber)),
      taskNumber(task),
      peerPort(endpoints.peerPort)
{}

shared_parsedData RecordMaker::make(const QByteArray &data, const QString &id,
                                    const QDateTime &time, const Stamp *stamp)
{
    nameClient(id, stamp);
    if (stamp) // no copy if the host has released the latest record
        subIds.insert(subids::offset(), QString::number(stamp->position));
    if (held) // its own destructor is called: the pointer was made for it
        return QSharedPointer<HeldRecord>::create(held, data, source, peerText, peerPort, subIds,
                                                  time);
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
