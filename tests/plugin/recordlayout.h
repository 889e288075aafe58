// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include "plugin/parseddata.h"

// A class of the host. The record knows only its name.
class Device
{};

namespace recordlayout {

// The record's members, in the layout that separately built hosts expect.
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
