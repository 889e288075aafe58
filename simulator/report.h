// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include "simulator/options.h"

#include <QtCore/QByteArray>
#include <QtCore/QList>

namespace simulator {

enum class End {
    Closed, // by the device
    Reset, // by the device
    Unanswered, // by the device, after the peer had not answered its FIN
    Abandoned, // by the device, which was told to stop and could not do so in time
    PeerClosed, // by the peer
    Failed, // see ConnectionRecord::error
};

/*!
    What became of one connection. Times in milliseconds since the start of the run.
*/
struct ConnectionRecord
{
    quint64 device = 0;
    quint64 connection = 0; // of the device, from 1
    QHostAddress localAddress;
    quint16 localPort = 0; // 0 if there was no connection
    quint64 messages = 0; // accepted by the kernel as a whole
    quint64 bytes = 0; // accepted by the kernel; with TLS before encryption
    QByteArray checksum; // SHA-1 of these bytes, hexadecimal; empty if not wanted
    bool opened = false; // with TLS: handshake done
    bool resumed = false; // the TLS session of an earlier connection
    bool failed = false; // not opened, or cut short
    End end = End::Closed;
    QString error;
    qint64 startMs = 0;
    qint64 openMs = 0; // 0 if not opened
    qint64 endMs = 0;
};

/*!
    Collects what was sent and writes it at the end, so that writing does not disturb the run.
*/
class Report
{
public:
    void add(const ConnectionRecord &record);

    bool hasFailures() const { return failed > 0; }
    bool isEmpty() const { return records.isEmpty(); }
    quint64 messageCount() const { return messages; }
    quint64 failureCount() const { return failed; }

    // interrupted: by a signal.
    QByteArray toText(const Options &options, qint64 elapsedMs, bool interrupted) const;
    QByteArray toJson(const Options &options, qint64 elapsedMs, bool interrupted) const;

private:
    QList<ConnectionRecord> sortedRecords() const;

    QList<ConnectionRecord> records;
    quint64 opened = 0;
    quint64 resumed = 0;
    quint64 failed = 0;
    quint64 messages = 0;
    quint64 bytes = 0;
};

} // namespace simulator
