// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include "host/options.h"
#include "plugin/kit/trafficobserver.h"
#include "recording/recorder.h"

#include <QtCore/QString>

namespace host {

/*!
    Records what the host reads. Logs when something is missing in the recording, and when it
    goes on or ends without that.

    Thread: the plugin's, which never waits for the file.
    Owner:  the host.
*/
class TrafficRecorder : public inputkit::TrafficObserver
{
public:
    explicit TrafficRecorder(const RecordingOptions &given);

    // False if the file cannot be written, or cannot be compressed: see errorString().
    bool start();
    QString errorString() const { return error; }

    // Writes what waits, and closes the file.
    void finish() { recorder.finish(); }

    void read(const inputkit::Origin &origin, quint64 position, QByteArrayView bytes) override;
    void ended(const inputkit::Origin &origin, const QString &reason, quint64 position) override;

private:
    recording::RecorderNotices notices() const;

    const RecordingOptions options;
    recording::Recorder recorder;
    QString error;
};

// Both ends of the connection. The local one is a part of the source; empty if that has another
// form than the plugin's.
recording::Endpoints endpointsOf(const inputkit::Origin &origin);

} // namespace host
