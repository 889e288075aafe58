// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include "recording/recordingwriter.h"

#include <QtCore/QByteArray>
#include <QtCore/QByteArrayView>
#include <QtCore/QString>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <optional>
#include <thread>

namespace recording {

//! What a host hears of its recorder. Called in any thread, with no lock held.
struct RecorderNotices
{
    // From now on something is missing in the recording. Once until resumed() comes.
    std::function<void(const QString &reason)> dropping;
    // It goes on; that many bytes of connections are missing.
    std::function<void(quint64 bytes)> resumed;
    // It has ended and does not go on; that many bytes of connections are missing. In finish().
    std::function<void(quint64 bytes)> cutShort;
};

/*!
    Records connections to a file, from a host's threads. Nobody waits for the file: a thread of the
    recorder's own writes it, at most 0.1 s later, or 1 s if it is compressed. What that thread has
   not written yet is bounded. If the file takes less than what comes, bytes are left out; the
   recording says where, and how many, and soon behind it which connections are open.

    Thread: any for begin(), bytes() and end(), each connection one at a time; the others the
   owner's. Owner:  the host. Locks:  mutex; never held while writing or notifying.
*/
class Recorder
{
public:
    // queueBytes: how much may wait for the thread, besides beginnings and ends. As much again is
    // being written, and as much again is the same in the file's form.
    static constexpr qsizetype DefaultQueueBytes = 64 * 1024 * 1024;
    Recorder(const WriterOptions &given, RecorderNotices told,
             qsizetype queueBytes = DefaultQueueBytes);
    ~Recorder(); // as finish()
    Q_DISABLE_COPY_MOVE(Recorder)

    // Opens the file, see RecordingWriter, and starts the thread. Call once. False, with an error:
    // nothing is recorded.
    bool start(const QString &fileName);
    QString errorString() const { return error; }
    // What start() has found under that name and does not continue.
    PutAside putAside() const { return aside; }

    // Connections have numbers that differ from those of all others since the start. positions: how
    // many of the connection's bytes come before.
    void begin(quint64 connection, const Endpoints &endpoints);
    void bytes(quint64 connection, quint64 position, QByteArrayView bytes);
    void end(quint64 connection, quint64 position, const QByteArray &reason);

    // Writes what waits and closes. Waits for a file as long as it takes, for a pipe that nobody
    // reads a second.
    void finish();

private:
    using Clock = std::chrono::steady_clock;

    void enqueue(const Entry &entry);
    void noteOpen(const Entry &entry);
    bool hasRoom(qsizetype size, qsizetype limit);
    qint64 takeElapsed();
    void appendGap();
    void wakeWriter(bool wasEmpty);

    void run();
    bool waitForEntries(std::unique_lock<std::mutex> &lock);
    void writeQueue(std::unique_lock<std::mutex> &lock);
    void writeBatch();
    void tellResumed();
    void tellCutShort();
    void noteLoss(quint64 lost, quint64 entries, const QString &reason);

    const WriterOptions options;
    const RecorderNotices notices;
    const qsizetype queueLimit;
    RecordingWriter writer; // the recorder's thread; until start() the owner's
    QByteArray batch; // likewise: what is being written
    std::optional<OpenConnections> openBehindGap; // likewise: behind a batch that has a gap
    quint64 missingSoFar = 0; // likewise: bytes, as the gaps tell since dropping() was told
    QString error; // set in start()
    PutAside aside; // likewise
    std::thread thread;

    std::mutex mutex;
    std::condition_variable hasEntries;
    // Guarded by mutex.
    QByteArray queue; // entries; changes places with batch, so both keep their memory
    OpenConnections open; // also those whose beginnings or ends are lost
    Clock::time_point lastTime; // of the last entry in the queue
    quint64 lostBytes = 0; // since the last Gap in the queue
    quint64 lostEntries = 0;
    bool gapIsQueued = false; // the queue has a Gap
    bool isDropping = false; // told, and not every Gap was written since
    bool isStopping = false;
};

} // namespace recording
