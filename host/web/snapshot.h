// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include "plugin/countersevent.h"

#include <QtCore/QByteArray>
#include <QtCore/QDateTime>
#include <QtCore/QList>
#include <QtCore/QString>

#include <chrono>
#include <optional>

namespace host {

//! A certificate that the server shows, and when it ends.
struct CertificateEnd
{
    QString name;
    QDateTime end; // UTC
};

//! What the program is like at one moment, for those who ask from outside. A value.
struct Snapshot
{
    std::chrono::steady_clock::time_point taken;

    QString address; // where the plugin listens
    int port = 0; // 0: nothing listens
    bool isTls = false;
    bool isAccepting = false;
    bool isDraining = false; // devices are let go, and the program ends
    std::optional<InputCounters> plugin; // since the last reload; nothing: no plugin listens

    // The keys of "limits"; 0: no such limit.
    qint64 maxConnections = 0;
    qint64 maxConnectionsPerAddress = 0;
    qint64 connectionBuffer = 0;
    qint64 totalBuffer = 0;

    // Since the program's start.
    qint64 messages = 0;
    qint64 messageBytes = 0;
    qint64 partial = 0;
    qint64 tooLong = 0;
    qint64 offers = 0;

    QString sink; // its kind, as --output names it
    bool sinkConnected = false;
    bool sinkFull = false;
    qint64 unsafeMessages = 0;

    QList<CertificateEnd> certificates; // the server's own first
    QDateTime configured; // UTC; when the present configuration began to serve
    bool lastReloadWorked = true;
};

} // namespace host
