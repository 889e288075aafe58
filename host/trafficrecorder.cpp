// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "host/trafficrecorder.h"

#include "plugin/cwrn.h"
#include "recording/compression.h"

namespace host {

using inputkit::Origin;

recording::Endpoints endpointsOf(const Origin &origin)
{
    recording::Endpoints endpoints;
    endpoints.peer = origin.peer.toUtf8();
    endpoints.peerPort = origin.port;

    // "TCP:tcp2:<local address>:<local port>-<peer address>:<peer port>", and perhaps "#<number>"
    const QLatin1String prefix("TCP:tcp2:");
    const QString rest =
            QLatin1Char('-') + origin.peer + QLatin1Char(':') + QString::number(origin.port);
    const qsizetype end = origin.source.lastIndexOf(rest);
    if (!origin.source.startsWith(prefix) || end < prefix.size())
        return endpoints;
    const QStringView local = QStringView(origin.source).first(end).sliced(prefix.size());
    const qsizetype colon = local.lastIndexOf(QLatin1Char(':'));
    if (colon < 0)
        return endpoints;
    endpoints.local = local.first(colon).toUtf8();
    endpoints.localPort = local.sliced(colon + 1).toUShort();
    return endpoints;
}

TrafficRecorder::TrafficRecorder(const RecordingOptions &given)
    : options(given),
      recorder(given.writer, notices())
{}

recording::RecorderNotices TrafficRecorder::notices() const
{
    return {[this](const QString &reason) {
                CWRN(QtWarningMsg, QStringLiteral("Bytes are missing in the recording %1: %2"),
                     options.file, reason);
            },
            [this](quint64 bytes) {
                CWRN(QtWarningMsg, QStringLiteral("Recording %1 goes on: %2 bytes are missing"),
                     options.file, bytes);
            },
            [this](quint64 bytes) {
                CWRN(QtWarningMsg, QStringLiteral("Recording %1 ends early: %2 bytes are missing"),
                     options.file, bytes);
            }};
}

bool TrafficRecorder::start()
{
    if (options.writer.compress && !recording::canCompress()) {
        error = QStringLiteral("Cannot compress recordings: this program was built without zstd");
        return false;
    }
    if (!recorder.start(options.file)) {
        error = QStringLiteral("Cannot record to %1: %2").arg(options.file, recorder.errorString());
        return false;
    }
    const recording::PutAside old = recorder.putAside();
    if (!old.name.isEmpty())
        CWRN(QtWarningMsg, QStringLiteral("Recording %1 is not continued, it is now %2: %3"),
             options.file, old.name, old.reason);
    return true;
}

void TrafficRecorder::read(const Origin &origin, quint64 position, QByteArrayView bytes)
{
    if (position == 0)
        recorder.begin(origin.connection, endpointsOf(origin));
    recorder.bytes(origin.connection, position, bytes);
}

void TrafficRecorder::ended(const Origin &origin, const QString &reason, quint64 position)
{
    if (position == 0) // it has brought nothing
        recorder.begin(origin.connection, endpointsOf(origin));
    recorder.end(origin.connection, position, reason.toUtf8());
}

} // namespace host
