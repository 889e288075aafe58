// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "host/web/history.h"

#include "host/web/snapshot.h"

#include <QtCore/QJsonArray>
#include <QtCore/QJsonDocument>
#include <QtCore/QJsonObject>

#include <cmath>

namespace host {
namespace {

using Seconds = std::chrono::duration<double>;

// A tenth is more than a plot shows, and keeps the text short.
double tenths(double value)
{
    constexpr double Tenths = 10;
    return std::round(value * Tenths) / Tenths;
}

} // namespace

void History::note(const Snapshot &snapshot)
{
    const Counts now{snapshot.taken, snapshot.messages, snapshot.messageBytes};
    if (!last) {
        last = now;
        return;
    }
    if (now.taken - last->taken < SampleInterval)
        return;

    const double seconds = Seconds(now.taken - last->taken).count();
    if (list.size() == MostSamples)
        list.removeFirst();
    list.append({now.taken, snapshot.plugin ? snapshot.plugin->open : 0,
                 static_cast<double>(now.messages - last->messages) / seconds,
                 static_cast<double>(now.bytes - last->bytes) / seconds});
    last = now;
}

QByteArray historyJson(const History::Samples &samples, History::TimePoint now)
{
    QJsonArray ages;
    QJsonArray connections;
    QJsonArray messages;
    QJsonArray bytes;
    for (const History::Sample &each : samples) {
        ages.append(tenths(Seconds(now - each.taken).count()));
        connections.append(static_cast<qint64>(each.connections));
        messages.append(tenths(each.messagesPerSecond));
        bytes.append(tenths(each.bytesPerSecond));
    }
    const QJsonObject all = {
            {QStringLiteral("intervalSeconds"), static_cast<int>(History::SampleInterval.count())},
            {QStringLiteral("secondsAgo"), ages},
            {QStringLiteral("connections"), connections},
            {QStringLiteral("messagesPerSecond"), messages},
            {QStringLiteral("bytesPerSecond"), bytes}};
    return QJsonDocument(all).toJson(QJsonDocument::Compact) + '\n';
}

} // namespace host
