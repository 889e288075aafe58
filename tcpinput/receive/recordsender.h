// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include "tcpinput/connection/acceptance.h"
#include "tcpinput/receive/endreason.h"
#include "tcpinput/receive/localsecond.h"
#include "tcpinput/receive/recordmaker.h"

#include <QtCore/QByteArray>
#include <QtCore/QObject>
#include <QtCore/QString>

#include <functional>
#include <memory>
#include <vector>

/*!
    Makes records of what one connection offers, and of its end, and sends them to the host's
    thread. Keeps the connection's places as long as the client lives.

    Thread: the client's.
    Owner:  shared by the functions that the client calls.
*/
class RecordSender
{
public:
    //! What the connections of a task share.
    struct Way
    {
        int task = 0; // its number
        QObject *consumer = nullptr; // in whose thread records are handed over, queued; or null
        std::function<void(const shared_parsedData &record)> send;
        LocalSecond clock = {};
    };

    // taskWay: not owned, outlives this. heldBytes: of the connection; null: not limited.
    RecordSender(Way &taskWay, const Acceptance &acceptance, std::shared_ptr<HeldBytes> heldBytes);

    // id: the client's. position: of the first byte.
    void offer(const QByteArray &data, const QString &id, quint64 position);
    // position: behind the last byte.
    void end(EndReason reason, const QString &id, quint64 position);

private:
    void tellHandOver();

    Way &way;
    const std::shared_ptr<HeldBytes> held;
    RecordMaker maker;
    const quint64 number; // of the connection; 0: records are not stamped
    const std::vector<std::shared_ptr<const void>> places;
};
