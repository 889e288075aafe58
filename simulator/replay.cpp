// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "simulator/replay.h"

#include "recording/recordingreader.h"
#include "simulator/mutation.h"

#include <QtCore/QFile>

#include <algorithm>
#include <utility>

namespace simulator {

using recording::Entry;
using recording::RecordingReader;

bool Replay::load()
{
    QFile file(options.replayFile);
    if (!file.open(QIODevice::ReadOnly))
        return fail(file.errorString());
    RecordingReader reader(file);
    qint64 lastUs = 0;
    while (const auto entry = reader.next()) {
        if (!take(*entry))
            return fail(QStringLiteral("it was recorded without payload"));
        lastUs = entry->timeUs;
    }
    const bool isPlayable = reader.state() == RecordingReader::State::CleanEnd
            || reader.state() == RecordingReader::State::TornEnd
            || reader.state() == RecordingReader::State::Damaged;
    if (!isPlayable)
        return fail(reader.errorString());
    close(std::exchange(unrepeated, {}), sessionUs);
    close(std::exchange(open, {}), lastUs);
    if (connections.isEmpty())
        return fail(QStringLiteral("it has no connections"));

    QStringList complaints;
    if (!reader.errorString().isEmpty())
        complaints += reader.errorString();
    // Positions do not tell of a connection of which nothing is recorded behind its gap; gaps do
    // not tell of a file that is missing.
    const quint64 missing = std::max(missingByPosition, missingInGaps);
    if (missing > 0)
        complaints += QStringLiteral("%1 bytes are missing in it").arg(missing);
    complaint = complaints.join(QStringLiteral("; "));
    if (options.mutateSeed)
        mutate();
    return true;
}

// False if it cannot be played.
bool Replay::take(const Entry &entry)
{
    if (entry.type != Entry::Begin)
        close(std::exchange(unrepeated, {}), sessionUs);
    switch (entry.type) {
    case Entry::Session:
        takeSession(entry);
        break;
    case Entry::Begin:
        takeBegin(entry);
        break;
    case Entry::Bytes:
        takeBytes(entry);
        break;
    case Entry::End:
        takeEnd(entry);
        break;
    case Entry::Length:
        return false;
    case Entry::Gap:
        missingInGaps += entry.size;
        break;
    case Entry::Block:
        break;
    }
    return true;
}

void Replay::takeSession(const Entry &entry)
{
    sessionUs = entry.timeUs;
    unrepeated = std::exchange(open, {});
    if (!entry.continues)
        close(std::exchange(unrepeated, {}), sessionUs);
}

void Replay::takeBegin(const Entry &entry)
{
    const auto known = entry.wasOpen ? unrepeated.find(entry.connection) : unrepeated.end();
    if (known == unrepeated.end()) {
        open.insert(entry.connection, add(entry));
        return;
    }
    open.insert(entry.connection, *known);
    unrepeated.erase(known);
}

void Replay::takeBytes(const Entry &entry)
{
    const auto known = open.constFind(entry.connection);
    // Its beginning may be missing.
    const qsizetype index =
            known != open.constEnd() ? *known : *open.insert(entry.connection, add(entry));
    Connection &connection = connections[index];
    if (entry.position > connection.position)
        missingByPosition += entry.position - connection.position;
    connection.position = entry.position + entry.size;
    if (entry.bytes.isEmpty())
        return;
    connection.timesUs.append(entry.timeUs - connection.beginUs);
    connection.messages.append(entry.bytes);
}

void Replay::takeEnd(const Entry &entry)
{
    const auto known = open.constFind(entry.connection);
    if (known == open.constEnd())
        return;
    Connection &connection = connections[*known];
    if (entry.position > connection.position)
        missingByPosition += entry.position - connection.position;
    connection.isReset = entry.reason == "reset";
    connection.endUs = entry.timeUs - connection.beginUs;
    open.erase(known);
}

// A connection that begins with the entry, or that the recording has from there on.
qsizetype Replay::add(const Entry &entry)
{
    Connection connection;
    connection.beginUs = entry.timeUs;
    connection.position = entry.position;
    connections.append(connection);
    return connections.size() - 1;
}

void Replay::close(const Open &numbers, qint64 timeUs)
{
    for (const qsizetype index : numbers) {
        Connection &connection = connections[index];
        connection.endUs = timeUs - connection.beginUs;
    }
}

void Replay::mutate()
{
    for (quint64 device = 1; device <= deviceCount(); ++device) {
        Mutation mutation(*options.mutateSeed, device);
        Connection &connection = connections[static_cast<qsizetype>(device - 1)];
        const QList<QByteArray> messages = std::exchange(connection.messages, {});
        const QList<qint64> times = std::exchange(connection.timesUs, {});
        for (qsizetype index = 0; index < messages.size(); ++index) {
            const QList<QByteArray> writes = mutation.of(messages.at(index));
            connection.messages += writes;
            connection.timesUs += QList<qint64>(writes.size(), times.at(index));
        }
    }
}

quint64 Replay::messageCount(quint64 device) const
{
    return static_cast<quint64>(of(device).messages.size());
}

QList<qint64> Replay::connectTimes() const
{
    QList<qint64> times;
    for (const Connection &connection : connections)
        times.append(connection.beginUs - connections.first().beginUs);
    // The clock of the recorder's machine may have been set between two sessions.
    for (qsizetype index = 1; index < times.size(); ++index)
        times[index] = std::max(times[index], times[index - 1]);
    return times;
}

QList<qint64> Replay::messageTimes(quint64 device) const
{
    return of(device).timesUs;
}

qint64 Replay::restUs(quint64 device) const
{
    const Connection &connection = of(device);
    const qint64 last = connection.timesUs.isEmpty() ? 0 : connection.timesUs.last();
    return std::max<qint64>(0, connection.endUs.value_or(0) - last);
}

bool Replay::endsWithReset(quint64 device) const
{
    return of(device).isReset;
}

bool Replay::append(QByteArray &out, quint64 device, quint64 number) const
{
    out += of(device).messages.at(static_cast<qsizetype>(number - 1));
    return true;
}

const Replay::Connection &Replay::of(quint64 device) const
{
    return connections.at(static_cast<qsizetype>(device - 1));
}

bool Replay::fail(const QString &text)
{
    error = QStringLiteral("cannot play %1: %2").arg(options.replayFile, text);
    return false;
}

} // namespace simulator
