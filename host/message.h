// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include <QtCore/QByteArrayView>
#include <QtCore/QString>

namespace host {

//! Where a message came from, as its record says.
struct Origin
{
    QString time; // when the record was made; ISO 8601, UTC
    QString plugin;
    QString source;
    QString peer;
    unsigned short port = 0;
    QString client;
    QString task;
};

//! One message to be written. It does not own the bytes, so it must not be kept.
struct Message
{
    QByteArrayView head; // as Output::headOf() made it for the origin
    QByteArrayView bytes; // without framing
    bool partial = false; // the beginning of a message whose end never came
};

} // namespace host
