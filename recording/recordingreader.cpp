// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "recording/recordingreader.h"

#include "recording/compression.h"
#include "recording/format.h"
#include "recording/numbers.h"

#include <QtCore/QIODevice>

namespace recording {

std::optional<Entry> RecordingReader::next()
{
    while (reached == State::Reading) {
        if (!rest.isEmpty()) {
            if (auto entry = nextOfBlock())
                return entry;
        } else if (hasHeader ? !readFrame() : !readHeader()) {
            break;
        }
    }
    return {};
}

// Nothing if the entry is of an unknown kind, or damaged.
std::optional<Entry> RecordingReader::nextOfBlock()
{
    const auto raw = takeEntry(rest);
    auto entry = raw && raw->type != Entry::Block ? parseEntry(*raw) : std::nullopt;
    if (!entry)
        return stop(State::Damaged);
    if (entry->type != Entry::Session)
        entry->timeUs = qMin(timeUs, MaxTimeUs) + entry->elapsedUs;
    timeUs = entry->timeUs;
    if (rest.isEmpty())
        good += frame.size();
    // Newer recorders may write entries of other kinds.
    const bool isKnown = entry->type >= Entry::Session && entry->type <= Entry::Gap;
    return isKnown ? entry : std::nullopt;
}

std::optional<Entry> RecordingReader::stop(State state)
{
    reached = state;
    rest = {};
    return {};
}

bool RecordingReader::readHeader()
{
    const QByteArray header = read(HeaderBytes);
    if (reached != State::Reading)
        return false;
    switch (checkHeader(header)) {
    case HeaderCheck::Good:
        break;
    case HeaderCheck::Cut:
        stop(State::TornEnd);
        return false;
    case HeaderCheck::OtherVersion:
        stop(State::OtherVersion);
        return false;
    case HeaderCheck::Damaged:
        stop(State::Damaged);
        return false;
    case HeaderCheck::Foreign:
        stop(State::NoRecording);
        return false;
    }
    good = HeaderBytes;
    hasHeader = true;
    return true;
}

bool RecordingReader::readFrame()
{
    frame = read(FrameHeadBytes);
    if (reached != State::Reading)
        return false;
    if (!isFrameHead(frame)) {
        stop(State::Damaged);
        return false;
    }
    if (frame.size() < FrameHeadBytes) {
        stop(frame.isEmpty() ? State::CleanEnd : State::TornEnd);
        return false;
    }
    const qsizetype bodySize = bodySizeOf(frame);
    frame += read(bodySize);
    if (reached != State::Reading)
        return false;
    const QByteArrayView body = QByteArrayView(frame).sliced(FrameHeadBytes);
    if (body.size() < bodySize) {
        stop(State::TornEnd);
        return false;
    }
    return openBlock(body);
}

// Makes the frame's entries the next ones.
bool RecordingReader::openBlock(QByteArrayView body)
{
    if (!isBodyOf(QByteArrayView(frame).first(FrameHeadBytes), body)) {
        stop(State::Damaged);
        return false;
    }
    if (static_cast<quint8>(frame.front()) != Entry::Block) {
        block = frame.first(EntryHeadBytes);
        block += body;
        rest = block;
        return true;
    }
    if (!canCompress()) {
        missesLibrary = true;
        stop(State::NotReadable);
        return false;
    }
    Cursor cursor(body);
    const auto size = static_cast<qsizetype>(cursor.takeNumber(MaxBodyBytes));
    const auto entries = decompress(cursor.takeRest(), size);
    if (!cursor.isGood() || !entries || entries->isEmpty()) {
        stop(State::Damaged);
        return false;
    }
    block = *entries;
    rest = block;
    return true;
}

// Fewer bytes at the end of the file.
QByteArray RecordingReader::read(qsizetype size)
{
    QByteArray bytes(size, Qt::Uninitialized);
    qsizetype filled = 0;
    while (filled < size) {
        const qint64 got = device.read(bytes.data() + filled, size - filled);
        if (got < 0)
            stop(State::NotReadable);
        if (got <= 0)
            break;
        filled += static_cast<qsizetype>(got);
    }
    bytes.truncate(filled);
    return bytes;
}

QString RecordingReader::errorString() const
{
    switch (reached) {
    case State::Reading:
    case State::CleanEnd:
        return {};
    case State::TornEnd:
        return QStringLiteral("it ends within an entry; the first %1 bytes are whole").arg(good);
    case State::Damaged:
        return QStringLiteral("it is damaged behind its first %1 bytes").arg(good);
    case State::NoRecording:
        return QStringLiteral("it is no recording");
    case State::OtherVersion:
        return QStringLiteral("it has a newer format");
    case State::NotReadable:
        break;
    }
    return missesLibrary
            ? QStringLiteral("it is compressed, and this program was built without zstd")
            : device.errorString();
}

} // namespace recording
