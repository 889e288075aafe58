// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include "plugin/parseddata.h"

// The host's class, of which the record knows only the name.
class Device
{};

namespace recordlayout {

// The record's members as hosts that were built separately know them.
struct Layout
{
    QString format;
    QString pluginId;
    QMap<QString, QString> pluginSubIds;
    QString peerAddress;
    unsigned short peerPort;
    QByteArray originalMessage;
    QDateTime timestamp;
    QString deviceId;
    QString source;
    QMap<QString, QString> data;
    QReadWriteLock lock;
    bool parsed;
    bool gpsPosData;
    Device *device;
};

} // namespace recordlayout
