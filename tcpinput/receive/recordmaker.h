// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include "plugin/parseddata.h"
#include "tcpinput/connection/endpoints.h"

#include <QtCore/QByteArray>
#include <QtCore/QDateTime>
#include <QtCore/QMap>
#include <QtCore/QString>

/*!
    Makes the records of one connection. They differ in their bytes and little else: the texts that
    name the connection are put together once, and some of them again if its id changes.

    Thread: one at a time.
    Owner:  the task.
*/
class RecordMaker
{
public:
    // task: its number.
    RecordMaker(int task, const Endpoints &endpoints);

    //! Where a stamped offer belongs.
    struct Stamp
    {
        quint64 connection; // its number
        quint64 position; // how many of its bytes lie before the first one of the offer
    };

    // id: the client's, time: local, stamp: null, or that of this connection. The record has no
    // plugin id yet.
    shared_parsedData make(const QByteArray &data, const QString &id, const QDateTime &time,
                           const Stamp *stamp = nullptr);

private:
    void nameClient(const QString &id, const Stamp *stamp);

    const QString peerText;
    const QString source;
    QMap<QString, QString> subIds;
    QString client; // that subIds were made for
    const int taskNumber;
    const quint16 peerPort;
};
