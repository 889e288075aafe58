// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include "recording/compression.h"
#include "recording/entry.h"
#include "recording/recordingfile.h"
#include "recording/writeroptions.h"

#include <QtCore/QHash>

#include <optional>

namespace recording {

using OpenConnections = QHash<quint64, Endpoints>; // by number

/*!
    Writes entries to files, each of which can be read by itself: a new file begins with a session
    that repeats the connections that are open.

    The same is done after entries could not be written, and behind those that had a gap. So a
   reader knows again which connections are open, also when beginnings or ends are among what is
   missing.

    Thread: one at a time; giveUpSoon() any.
*/
class RecordingWriter
{
public:
    explicit RecordingWriter(const WriterOptions &given) : options(given) {}

    // See RecordingFile::open(). timeUs: now, in microseconds since 1970 in UTC; what is written
    // later counts from there.
    bool open(const QString &fileName, qint64 timeUs);

    // entries: as appendEntry() makes them, whole; no sessions. openBehind: the connections that
    // are open behind them, if the entries cannot tell since others are missing: a session that
    // repeats these follows. False: the entries are lost, see errorString().
    bool write(QByteArrayView entries, const std::optional<OpenConnections> &openBehind = {});

    PutAside putAside() const { return file.putAside(); }
    QString errorString() const { return file.errorString(); }
    void giveUpSoon() { file.giveUpSoon(); }

private:
    struct OpenConnection
    {
        Endpoints endpoints;
        quint64 position = 0; // behind what it has brought
    };

    void beginFullFileAnew();
    void appendSession();
    void note(QByteArrayView entries);
    void noteEntry(const RawEntry &raw);
    void correct(const OpenConnections &open);
    void appendFrames(QByteArrayView entries);
    void appendPlain(QByteArrayView entries);
    void appendBlocks(QByteArrayView entries);
    bool appendBlock(QByteArrayView entries);

    const WriterOptions options;
    RecordingFile file;
    Compressor compressor;
    QHash<quint64, OpenConnection> connections; // by number; without endpoints: begun in a gap
    qint64 nowUs = 0; // time of the last entry
    qint64 repeatedBytes = 0; // of the file: sessions at its beginning and after failures
    bool needsSession = true;
    bool isFirstSession = true;
    QByteArray frames; // to be written; keeps its memory
};

} // namespace recording
