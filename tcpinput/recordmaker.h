// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include "plugin/connection.h"
#include "plugin/parseddata.h"

#include <QtCore/QMap>
#include <QtCore/QString>
#include <QtNetwork/QHostAddress>

/*!
    Makes the records of one connection. They differ in their bytes and little else: the texts that
    name the connection are put together once, and again only if the connection is named otherwise.

    Thread: one at a time.
    Owner:  the task.
*/
class RecordMaker
{
public:
    // task: its number.
    explicit RecordMaker(int task) : taskNumber(task) {}

    //! Where a stamped offer belongs.
    struct Stamp
    {
        quint64 connection; // its number
        quint64 position; // how many of its bytes lie before the first one of the offer
    };

    // c: an offer, id: the client's, stamp: null, or that of this connection. The record has no
    // plugin id yet.
    shared_parsedData make(const Connection &c, const QString &id, const Stamp *stamp = nullptr);

private:
    void nameEndpoints(const Connection &c);
    void nameClient(const QString &id, const Stamp *stamp);

    const int taskNumber;
    QHostAddress peer; // what the texts were made of
    QHostAddress local;
    unsigned short peerPort = 0;
    unsigned short localPort = 0;
    QString client;

    QString peerText;
    QString source; // empty: nothing has been made yet
    QMap<QString, QString> subIds;
};
