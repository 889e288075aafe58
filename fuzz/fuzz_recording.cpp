// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

// Recordings: whatever is in a file, it is read without harm, and says how it ends. What a cut file
// holds is the beginning of what the whole one does. What was read can be written and read again.

#include "fuzz/fuzztarget.h"
#include "recording/compression.h"
#include "recording/entry.h"
#include "recording/entryprinter.h"
#include "recording/format.h"
#include "recording/numbers.h"
#include "recording/recordingreader.h"

#include <QtCore/QBuffer>
#include <QtCore/QByteArrayList>

using namespace recording;

namespace {

using State = RecordingReader::State;

struct Contents
{
    QByteArrayList entries; // as they would be written
    State state = State::Reading;
    qint64 goodBytes = 0;
};

QByteArray encoded(const Entry &entry)
{
    QByteArray bytes;
    appendEntry(bytes, entry);
    return bytes;
}

Contents contentsOf(QByteArray file)
{
    QBuffer buffer(&file);
    buffer.open(QIODevice::ReadOnly);
    RecordingReader reader(buffer);
    Contents contents;
    while (const auto entry = reader.next()) {
        contents.entries += encoded(*entry);
        for (const EntryStyle style : {EntryStyle::Text, EntryStyle::Hex, EntryStyle::Json})
            require(printed(*entry, style).endsWith('\n'), QStringLiteral("whole lines"));
    }
    contents.state = reader.state();
    contents.goodBytes = reader.goodBytes();
    require(contents.state != State::Reading, QStringLiteral("it ends somehow"));
    require(reader.errorString().isEmpty() == (contents.state == State::CleanEnd),
            QStringLiteral("only a clean end needs no reason"));
    require(contents.goodBytes <= file.size(), QStringLiteral("good bytes are in the file"));
    return contents;
}

// A file with the input as entries, whose check sums fit.
QByteArray framed(QByteArrayView entries)
{
    QByteArray file = fileHeader();
    while (const auto raw = takeEntry(entries))
        appendFrame(file, *raw);
    return file;
}

// The same as one compressed block.
QByteArray blockOf(QByteArrayView entries)
{
    char size[MaxNumberBytes];
    const char *end = putNumber(size, static_cast<quint64>(entries.size()));
    QByteArray body(size, end - size);
    Compressor compressor;
    QByteArray block;
    if (compressor.append(body, entries))
        appendEntry(block, Entry::Block, body);
    return framed(block);
}

} // namespace

void initialise() {}

void fuzz(QByteArrayView input)
{
    if (input.isEmpty())
        return;
    const int kind = static_cast<quint8>(input.front()) % 3;
    const QByteArrayView rest = input.sliced(1);
    const QByteArray file = kind == 0 ? rest.toByteArray()
            : kind == 1               ? framed(rest)
                                      : blockOf(rest);
    const Contents whole = contentsOf(file);

    const Contents good = contentsOf(file.first(whole.goodBytes));
    require(good.state == State::CleanEnd || whole.goodBytes == 0,
            QStringLiteral("good bytes end cleanly"));
    require(good.goodBytes == whole.goodBytes, QStringLiteral("good bytes stay good"));
    const Contents half = contentsOf(file.first(file.size() / 2));
    require(half.entries == whole.entries.first(half.entries.size()),
            QStringLiteral("a part has what the whole begins with"));

    const Contents again = contentsOf(framed(whole.entries.join()));
    require(again.state == State::CleanEnd && again.entries.join() == whole.entries.join(),
            QStringLiteral("what was read can be written"));
}
