// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "host/web/statusjson.h"

#include "host/versions.h"
#include "host/web/connectionpage.h"
#include "host/web/health.h"
#include "host/web/processfigures.h"
#include "host/web/snapshot.h"

#include <QtCore/QCoreApplication>
#include <QtCore/QJsonArray>
#include <QtCore/QJsonDocument>
#include <QtCore/QJsonObject>

#include <algorithm>

namespace host {
namespace {

constexpr double MicrosecondsPerMillisecond = 1e3;

QJsonValue json(quint64 value)
{
    return QJsonValue(static_cast<qint64>(value));
}

QString timeText(const QDateTime &time)
{
    return time.toString(Qt::ISODateWithMs);
}

QString timeText(qint64 msSinceEpoch)
{
    return timeText(QDateTime::fromMSecsSinceEpoch(msSinceEpoch).toUTC());
}

QJsonObject healthJson(const QStringList &reasons)
{
    return {{QStringLiteral("ok"), reasons.isEmpty()},
            {QStringLiteral("reasons"), QJsonArray::fromStringList(reasons)}};
}

QJsonObject versionJson()
{
    return {{QStringLiteral("program"), QCoreApplication::applicationVersion()},
            {QStringLiteral("qt"), QString::fromLatin1(qVersion())},
            {QStringLiteral("openssl"), opensslVersion()}};
}

QJsonObject inputJson(const Snapshot &snapshot)
{
    return {{QStringLiteral("address"), snapshot.address},
            {QStringLiteral("port"), snapshot.port},
            {QStringLiteral("tls"), snapshot.isTls},
            {QStringLiteral("accepting"), snapshot.port != 0 && snapshot.isAccepting},
            {QStringLiteral("draining"), snapshot.isDraining},
            {QStringLiteral("configured"), timeText(snapshot.configured)},
            {QStringLiteral("lastReloadWorked"), snapshot.lastReloadWorked}};
}

QJsonObject limitsJson(const Snapshot &snapshot)
{
    return {{QStringLiteral("maxConnections"), snapshot.maxConnections},
            {QStringLiteral("maxConnectionsPerAddress"), snapshot.maxConnectionsPerAddress},
            {QStringLiteral("connectionBuffer"), snapshot.connectionBuffer},
            {QStringLiteral("totalBuffer"), snapshot.totalBuffer}};
}

QJsonObject messagesJson(const Snapshot &snapshot)
{
    return {{QStringLiteral("complete"), snapshot.messages},
            {QStringLiteral("bytes"), snapshot.messageBytes},
            {QStringLiteral("partial"), snapshot.partial},
            {QStringLiteral("tooLong"), snapshot.tooLong},
            {QStringLiteral("offers"), snapshot.offers}};
}

QJsonObject sinkJson(const Snapshot &snapshot)
{
    return {{QStringLiteral("kind"), snapshot.sink},
            {QStringLiteral("connected"), snapshot.sinkConnected},
            {QStringLiteral("full"), snapshot.sinkFull},
            {QStringLiteral("unsafeMessages"), snapshot.unsafeMessages}};
}

QJsonArray workersJson(const InputCounters &plugin)
{
    QJsonArray workers;
    for (const InputCounters::Worker &worker : plugin.workers)
        workers.append(QJsonObject{{QStringLiteral("number"), worker.number},
                                   {QStringLiteral("turns"), json(worker.turns)},
                                   {QStringLiteral("turnMs"), worker.turnMs}});
    return workers;
}

QJsonObject closedJson(const InputCounters &plugin)
{
    return {{QStringLiteral("peer"), json(plugin.closedByPeer)},
            {QStringLiteral("reset"), json(plugin.closedByReset)},
            {QStringLiteral("idle"), json(plugin.closedIdle)},
            {QStringLiteral("tls"), json(plugin.closedByTls)},
            {QStringLiteral("limit"), json(plugin.closedByLimit)},
            {QStringLiteral("stop"), json(plugin.closedByStop)}};
}

QJsonObject handshakesJson(const InputCounters &plugin)
{
    const double sumMs = static_cast<double>(plugin.handshakeUs) / MicrosecondsPerMillisecond;
    const auto number = static_cast<double>(std::max<quint64>(plugin.handshakesDone, 1));
    return {{QStringLiteral("done"), json(plugin.handshakesDone)},
            {QStringLiteral("failed"), json(plugin.handshakesFailed)},
            {QStringLiteral("timedOut"), json(plugin.handshakesTimedOut)},
            {QStringLiteral("withoutTls"), json(plugin.withoutTls)},
            {QStringLiteral("meanMs"), sumMs / number},
            {QStringLiteral("longestMs"),
             static_cast<double>(plugin.longestHandshakeUs) / MicrosecondsPerMillisecond}};
}

QJsonObject pluginJson(const InputCounters &plugin)
{
    const QJsonObject refused = {{QStringLiteral("limit"), json(plugin.refusedByLimit)},
                                 {QStringLiteral("proxyRule"), json(plugin.refusedByProxyRule)},
                                 {QStringLiteral("noHeader"), json(plugin.withoutHeader)}};
    return {{QStringLiteral("open"), json(plugin.open)},
            {QStringLiteral("waiting"), json(plugin.waiting)},
            {QStringLiteral("paused"), json(plugin.paused)},
            {QStringLiteral("accepted"), json(plugin.accepted)},
            {QStringLiteral("closed"), closedJson(plugin)},
            {QStringLiteral("refused"), refused},
            {QStringLiteral("handshakes"), handshakesJson(plugin)},
            {QStringLiteral("receivedBytes"), json(plugin.bytes)},
            {QStringLiteral("reads"), json(plugin.reads)},
            {QStringLiteral("bufferedBytes"), json(plugin.buffered)},
            {QStringLiteral("workers"), workersJson(plugin)}};
}

QJsonArray certificatesJson(const Snapshot &snapshot)
{
    QJsonArray list;
    for (const CertificateEnd &each : snapshot.certificates)
        list.append(QJsonObject{{QStringLiteral("name"), each.name},
                                {QStringLiteral("end"), timeText(each.end)}});
    return list;
}

QJsonObject processJson(const ProcessFigures &process)
{
    constexpr double MsPerSecond = 1e3;
    return {{QStringLiteral("residentBytes"), process.residentBytes},
            {QStringLiteral("cpuSeconds"), process.cpuSeconds},
            {QStringLiteral("threads"), process.threads},
            {QStringLiteral("openFiles"), process.openFiles},
            {QStringLiteral("maxFiles"), process.maxFiles},
            {QStringLiteral("started"),
             timeText(static_cast<qint64>(process.startTime * MsPerSecond))}};
}

QJsonObject rowJson(const ConnectionPage::Entry &entry)
{
    const ConnectionRow &row = *entry.row;
    return {{QStringLiteral("number"), json(entry.number)},
            {QStringLiteral("device"), deviceText(row)},
            {QStringLiteral("since"), timeText(row.sinceMs)},
            {QStringLiteral("last"), timeText(row.lastMs)},
            {QStringLiteral("bytes"), json(row.bytes)},
            {QStringLiteral("unsafe"), json(unsafeBytes(row))}};
}

QJsonObject pageJson(const ConnectionPage &page)
{
    QJsonArray rows;
    for (const ConnectionPage::Entry &entry : page.entries)
        rows.append(rowJson(entry));
    return {{QStringLiteral("total"), page.total},
            {QStringLiteral("matching"), page.matching},
            {QStringLiteral("rows"), rows}};
}

} // namespace

QByteArray statusJson(const Snapshot &snapshot, std::chrono::steady_clock::time_point now,
                      const ProcessFigures &process, const ConnectionPage &page)
{
    using std::chrono::milliseconds;
    const auto age = std::chrono::duration_cast<milliseconds>(now - snapshot.taken);
    QJsonObject status = {
            {QStringLiteral("ready"), healthJson(reasonsNotReady(snapshot))},
            {QStringLiteral("live"), healthJson(reasonsNotAlive(snapshot, now))},
            {QStringLiteral("ageMs"), static_cast<qint64>(age.count())},
            {QStringLiteral("version"), versionJson()},
            {QStringLiteral("input"), inputJson(snapshot)},
            {QStringLiteral("limits"), limitsJson(snapshot)},
            {QStringLiteral("messages"), messagesJson(snapshot)},
            {QStringLiteral("output"), sinkJson(snapshot)},
            {QStringLiteral("certificates"), certificatesJson(snapshot)},
            {QStringLiteral("process"), processJson(process)},
            {QStringLiteral("connections"), pageJson(page)},
    };
    if (snapshot.plugin)
        status.insert(QStringLiteral("plugin"), pluginJson(*snapshot.plugin));
    return QJsonDocument(status).toJson(QJsonDocument::Compact) + '\n';
}

} // namespace host
