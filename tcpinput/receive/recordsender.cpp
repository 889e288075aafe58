// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "tcpinput/receive/recordsender.h"

#include "tcpinput/limits/heldbytes.h"

#include <utility>

RecordSender::RecordSender(Way &taskWay, const Acceptance &acceptance,
                           std::shared_ptr<HeldBytes> heldBytes)
    : way(taskWay),
      held(std::move(heldBytes)),
      maker(way.task, acceptance.endpoints, held),
      number(acceptance.number),
      places(acceptance.places)
{}

void RecordSender::offer(const QByteArray &data, const QString &id, quint64 position)
{
    const RecordMaker::Stamp stamp{number, position};
    way.send(maker.make(data, id, way.clock.now(), number == 0 ? nullptr : &stamp));
    if (held)
        tellHandOver();
}

void RecordSender::end(EndReason reason, const QString &id, quint64 position)
{
    const RecordMaker::Stamp stamp{number, position};
    way.send(maker.makeEnd(reason, id, way.clock.now(), number == 0 ? nullptr : &stamp));
}

// Queued behind the record.
void RecordSender::tellHandOver()
{
    if (!way.consumer)
        return held->handedOver();
    QMetaObject::invokeMethod(
            way.consumer, [held = held] { held->handedOver(); }, Qt::QueuedConnection);
}
