// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "recording/recordingwriter.h"

#include "recording/format.h"
#include "recording/numbers.h"

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

bool RecordingWriter::write(QByteArrayView entries)
{
    const bool isFull = options.fileBytes > 0 && file.size() >= options.fileBytes;
    // If no new file can be begun, the old one grows.
    if (isFull && file.canBeginNext() && file.beginNext(options.keep))
        needsSession = true;

    emptyBuffer(frames);
    if (needsSession) {
        QByteArray session;
        appendSession(session);
        appendFrames(session);
    }
    note(entries);
    appendFrames(entries);
    const bool isWritten = file.append(frames);
    needsSession = !isWritten;
    isFirstSession = isFirstSession && !isWritten;
    return isWritten;
}

void RecordingWriter::appendSession(QByteArray &entries) const
{
    Entry session;
    session.type = Entry::Session;
    session.timeUs = nowUs;
    session.continues = !isFirstSession;
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
    const auto known = connections.find(connection);
    if (known == connections.end())
        return;
    if (raw.type == Entry::End)
        connections.erase(known);
    else
        known->position = position
                + (raw.type == Entry::Bytes ? static_cast<quint64>(cursor.left())
                                            : cursor.takeNumber());
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
