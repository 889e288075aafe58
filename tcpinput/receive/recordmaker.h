// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include "plugin/parseddata.h"
#include "tcpinput/connection/endpoints.h"
#include "tcpinput/receive/endreason.h"

#include <QtCore/QByteArray>
#include <QtCore/QDateTime>
#include <QtCore/QMap>
#include <QtCore/QString>

#include <memory>

class HeldBytes;

/*!
    Makes the records of one connection. Little but their bytes differs, so the texts that name the
    connection are made once, and some of them again when the id changes.

    Thread: one at a time.
    Owner:  the task.
*/
class RecordMaker
{
public:
    // task: its number. heldBytes: counts the records for the limits; null: nobody does.
    RecordMaker(int task, const Endpoints &endpoints,
                std::shared_ptr<HeldBytes> heldBytes = nullptr);

    //! Connection and position of a stamped offer.
    struct Stamp
    {
        quint64 connection; // its number
        quint64 position; // how many of its bytes lie before the first one of the offer
    };

    // The record that tells a connection's end. stamp: with the position behind its last byte.
    shared_parsedData makeEnd(EndReason reason, const QString &id, const QDateTime &time,
                              const Stamp *stamp = nullptr);

    // id: the client's. time: local. stamp: this connection's, or null. The record has no plugin id
    // yet.
    shared_parsedData make(const QByteArray &data, const QString &id, const QDateTime &time,
                           const Stamp *stamp = nullptr);

private:
    void nameClient(const QString &id, const Stamp *stamp);

    const std::shared_ptr<HeldBytes> held;
    const QString peerText;
    const QString source;
    QMap<QString, QString> subIds;
    QString client; // the id that subIds were made for
    const int taskNumber;
    const quint16 peerPort;
};
