// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "simulator/report.h"

#include <QtCore/QJsonArray>
#include <QtCore/QJsonDocument>
#include <QtCore/QJsonObject>

#include <algorithm>
#include <tuple>

namespace simulator {
namespace {

QString endText(End end)
{
    switch (end) {
    case End::Closed:
        return QStringLiteral("closed");
    case End::Reset:
        return QStringLiteral("reset");
    case End::Unanswered:
        return QStringLiteral("unanswered");
    case End::Abandoned:
        return QStringLiteral("abandoned");
    case End::PeerClosed:
        return QStringLiteral("peer-closed");
    case End::Failed:
        break;
    }
    return QStringLiteral("failed");
}

// JSON numbers are exact up to 2^53, more than any run counts.
qint64 jsonNumber(quint64 value)
{
    return static_cast<qint64>(value);
}

QJsonObject toObject(const ConnectionRecord &record)
{
    return {
            {QStringLiteral("device"), jsonNumber(record.device)},
            {QStringLiteral("connection"), jsonNumber(record.connection)},
            {QStringLiteral("localAddress"), record.localAddress.toString()},
            {QStringLiteral("localPort"), record.localPort},
            {QStringLiteral("messages"), jsonNumber(record.messages)},
            {QStringLiteral("bytes"), jsonNumber(record.bytes)},
            {QStringLiteral("sha1"), QString::fromLatin1(record.checksum)},
            {QStringLiteral("opened"), record.opened},
            {QStringLiteral("resumed"), record.resumed},
            {QStringLiteral("failed"), record.failed},
            {QStringLiteral("end"), endText(record.end)},
            {QStringLiteral("error"), record.error},
            {QStringLiteral("startMs"), record.startMs},
            {QStringLiteral("openMs"), record.openMs},
            {QStringLiteral("endMs"), record.endMs},
    };
}

QString toLine(const ConnectionRecord &record)
{
    QString line = QStringLiteral("device %1 connection %2: %3 messages, %4 bytes, %5 ms, %6")
                           .arg(record.device)
                           .arg(record.connection)
                           .arg(record.messages)
                           .arg(record.bytes)
                           .arg(record.endMs - record.startMs)
                           .arg(endText(record.end));
    if (record.resumed)
        line += QStringLiteral(", resumed");
    if (record.localPort != 0)
        line += QStringLiteral(", local port %1").arg(record.localPort);
    if (!record.checksum.isEmpty())
        line += QStringLiteral(", sha1 ") + QString::fromLatin1(record.checksum);
    if (!record.error.isEmpty())
        line += QStringLiteral(", ") + record.error;
    return line + QLatin1Char('\n');
}

} // namespace

void Report::add(const ConnectionRecord &record)
{
    records.append(record);
    opened += record.opened ? 1 : 0;
    resumed += record.resumed ? 1 : 0;
    failed += record.failed ? 1 : 0;
    messages += record.messages;
    bytes += record.bytes;
}

QByteArray Report::toText(const Options &options, qint64 elapsedMs, bool interrupted) const
{
    QString text;
    if (!options.quiet) {
        const QList<ConnectionRecord> sorted = sortedRecords();
        for (const ConnectionRecord &record : sorted)
            text += toLine(record);
    }
    const QString sessions =
            options.tls.resume ? QStringLiteral(", %1 resumed").arg(resumed) : QString();
    text += QStringLiteral("%1 connections opened%2, %3 failed; %4 messages, %5 bytes in %6 ms%7\n")
                    .arg(opened)
                    .arg(sessions)
                    .arg(failed)
                    .arg(messages)
                    .arg(bytes)
                    .arg(elapsedMs)
                    .arg(interrupted ? QStringLiteral(", interrupted") : QString());
    return text.toLocal8Bit();
}

QByteArray Report::toJson(const Options &options, qint64 elapsedMs, bool interrupted) const
{
    QJsonObject document;
    if (!options.quiet) {
        QJsonArray connections;
        const QList<ConnectionRecord> sorted = sortedRecords();
        for (const ConnectionRecord &record : sorted)
            connections.append(toObject(record));
        document.insert(QStringLiteral("connections"), connections);
    }
    document.insert(QStringLiteral("summary"),
                    QJsonObject{
                            {QStringLiteral("opened"), jsonNumber(opened)},
                            {QStringLiteral("resumed"), jsonNumber(resumed)},
                            {QStringLiteral("failed"), jsonNumber(failed)},
                            {QStringLiteral("messages"), jsonNumber(messages)},
                            {QStringLiteral("bytes"), jsonNumber(bytes)},
                            {QStringLiteral("elapsedMs"), elapsedMs},
                            {QStringLiteral("interrupted"), interrupted},
                    });
    return QJsonDocument(document).toJson(QJsonDocument::Compact) + '\n';
}

QList<ConnectionRecord> Report::sortedRecords() const
{
    QList<ConnectionRecord> sorted = records;
    std::sort(sorted.begin(), sorted.end(),
              [](const ConnectionRecord &a, const ConnectionRecord &b) {
                  return std::tie(a.device, a.connection) < std::tie(b.device, b.connection);
              });
    return sorted;
}

} // namespace simulator
