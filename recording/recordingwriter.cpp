// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "recording/recordingwriter.h"

#include "recording/format.h"
#include "recording/numbers.h"

#include <utility>

namespace recording {
namespace {

// A compressed block also holds the entry that exceeds this, and stays below MaxBodyBytes.
constexpr qsizetype BlockBytes = 512 * 1024;

} // namespace

bool RecordingWriter::open(const QString &fileName, qint64 timeUs)
{
    nowUs = timeUs;
    return file.open(fileName);
}

bool RecordingWriter::write(QByteArrayView entries,
                            const std::optional<OpenConnections> &openBehind)
{
    beginFullFileAnew();

    emptyBuffer(frames);
    const bool isFirst = isFirstSession;
    if (needsSession)
        appendSession();
    const qint64 repeated = frames.size();
    note(entries);
    appendFrames(entries);
    if (openBehind) {
        correct(*openBehind);
        appendSession();
    }
    needsSession = !file.append(frames);
    isFirstSession = isFirst && needsSession;
    if (!needsSession)
        repeatedBytes += repeated;
    return !needsSession;
}

// What a file repeats at its beginning does not count: if that were longer than a file may be, each
// batch would get one of its own. If no new file can be begun, the old one grows.
void RecordingWriter::beginFullFileAnew()
{
    if (options.fileBytes == 0 || file.size() - repeatedBytes < options.fileBytes)
        return;
    if (!file.canBeginNext() || !file.beginNext(options.keep))
        return;
    needsSession = true;
    repeatedBytes = 0;
}

void RecordingWriter::appendSession()
{
    QByteArray entries;
    Entry session;
    session.type = Entry::Session;
    session.timeUs = nowUs;
    session.continues = !std::exchange(isFirstSession, false);
    session.leavesOutPayload = !options.withPayload;
    appendEntry(entries, session);
    for (auto open = connections.constBegin(); open != connections.constEnd(); ++open) {
        Entry begin;
        begin.type = Entry::Begin;
        begin.connection = open.key();
        begin.position = open->position;
        begin.endpoints = open->endpoints;
        begin.wasOpen = true;
        appendEntry(entries, begin);
    }
    appendFrames(entries);
}

// Also for entries that are then lost: time goes on, and connections begin and end.
void RecordingWriter::note(QByteArrayView entries)
{
    while (const auto raw = takeEntry(entries))
        noteEntry(*raw);
}

void RecordingWriter::noteEntry(const RawEntry &raw)
{
    // The usual ones are not copied.
    Cursor cursor(raw.body);
    nowUs += static_cast<qint64>(cursor.takeNumber());
    if (raw.type == Entry::Gap)
        return;
    const quint64 connection = cursor.takeNumber();
    const quint64 position = cursor.takeNumber();
    if (raw.type == Entry::Begin) {
        if (const auto entry = parseEntry(raw))
            connections.insert(connection, {entry->endpoints, position});
        return;
    }
    if (raw.type == Entry::End)
        connections.remove(connection);
    else
        connections[connection].position = position
                + (raw.type == Entry::Bytes ? static_cast<quint64>(cursor.left())
                                            : cursor.takeNumber());
}

// The entries did not tell of all beginnings and ends. They did tell the positions.
void RecordingWriter::correct(const OpenConnections &open)
{
    const auto noted = std::exchange(connections, {});
    for (auto connection = open.constBegin(); connection != open.constEnd(); ++connection) {
        const quint64 position = noted.value(connection.key()).position;
        connections.insert(connection.key(), {connection.value(), position});
    }
}

void RecordingWriter::appendFrames(QByteArrayView entries)
{
    if (options.compress)
        appendBlocks(entries);
    else
        appendPlain(entries);
}

void RecordingWriter::appendPlain(QByteArrayView entries)
{
    while (const auto raw = takeEntry(entries))
        appendFrame(frames, *raw);
}

void RecordingWriter::appendBlocks(QByteArrayView entries)
{
    while (!entries.isEmpty()) {
        const QByteArrayView all = entries;
        while (all.size() - entries.size() < BlockBytes && takeEntry(entries)) {}
        const QByteArrayView block = all.first(all.size() - entries.size());
        if (block.isEmpty())
            return;

        if (!appendBlock(block))
            appendPlain(block); // without memory to compress it
    }
}

bool RecordingWriter::appendBlock(QByteArrayView entries)
{
    QByteArray body(MaxNumberBytes, Qt::Uninitialized);
    body.truncate(putNumber(body.data(), static_cast<quint64>(entries.size())) - body.data());
    if (!compressor.append(body, entries))
        return false;
    QByteArray block;
    appendEntry(block, Entry::Block, body);
    appendPlain(block);
    return true;
}

} // namespace recording
