// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include "plugin/kit/trafficobserver.h"

#include <QtCore/QString>

#include <memory>

namespace inputkit {

//! What is recorded, and where.
struct RecordingOptions
{
    QString file; // continued if it is a recording
    // A file that is at least so large is renamed to FILE.1, FILE.2 and so on, and a new one
    // begins. 0 (default): one file.
    qint64 fileBytes = 0;
    int keep = 0; // that many renamed files, the newest; 0 (default): all
    bool withPayload = true; // false: how many bytes came, but not the bytes
    bool compress = false; // with zstd, if the kit was built with it
};

/*!
    Records what is read, as an observer of an InputSession: for devicesim --replay and devicecat.
    Logs when something is missing in the recording, and when it goes on or ends without that.

    A thread of its own writes the file. Up to 64 MiB wait for it; beyond that bytes are left out.

    Thread: its creator's, which never waits for the file.
    Owner:  the caller; it outlives the session. The destructor writes what waits.
*/
class TrafficRecorder : public TrafficObserver
{
public:
    explicit TrafficRecorder(RecordingOptions given);
    ~TrafficRecorder() override;
    Q_DISABLE_COPY_MOVE(TrafficRecorder)

    // Call before the first byte is read. False if the file cannot be written, is no recording, is
    // in use, or cannot be compressed: see errorString().
    bool start();
    QString errorString() const { return error; }

    // Writes what waits, and closes the file.
    void finish();

    void read(const Origin &origin, quint64 position, QByteArrayView bytes) override;
    void ended(const Origin &origin, const QString &reason, quint64 position) override;

private:
    struct Parts; // of the recording, whose headers hosts do not have

    const RecordingOptions options;
    const std::unique_ptr<Parts> parts;
    QString error;
};

} // namespace inputkit
