// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include "recording/entry.h"

#include <QtCore/QByteArray>
#include <QtCore/QString>

#include <optional>

class QIODevice;

namespace recording {

/*!
    Reads a recording entry by entry, and says how it ends.

    Holds one entry, or one block of a compressed recording: some MiB at most, whatever is in the
    file.

    Thread: one at a time.
    Owner:  the caller, also of the device, which is open for reading and outlives the reader.
*/
class RecordingReader
{
public:
    enum class State {
        Reading, // next() may have more
        CleanEnd, // behind a whole entry
        TornEnd, // within an entry: the recorder was killed, or is still writing
        Damaged, // what comes next is not what was written
        NoRecording,
        OtherVersion, // a newer format
        NotReadable, // the device has failed, or the file needs a library that is missing
    };

    explicit RecordingReader(QIODevice &source) : device(source) {}

    // The next entry. Nothing once the state is another one than Reading.
    std::optional<Entry> next();

    State state() const { return reached; }
    // Why there is nothing more; for people. Empty while reading and at a clean end.
    QString errorString() const;

    // How many of the file's bytes are good: those up to the end of the last whole entry, or block.
    qint64 goodBytes() const { return good; }

private:
    std::optional<Entry> stop(State state);
    bool readHeader();
    bool readFrame();
    bool openBlock(QByteArrayView body);
    QByteArray read(qsizetype size);
    std::optional<Entry> nextOfBlock();

    QIODevice &device;
    State reached = State::Reading;
    bool hasHeader = false;
    qint64 good = 0;
    qint64 timeUs = 0; // of the last entry

    QByteArray frame; // the latest one, with its head
    QByteArray block; // the latest compressed block's entries, or the entry of a plain frame
    QByteArrayView rest; // of block: what was not returned yet
    bool missesLibrary = false;
};

} // namespace recording
