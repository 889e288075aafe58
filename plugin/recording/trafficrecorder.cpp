// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "plugin/recording/trafficrecorder.h"

#include "plugin/cwrn.h"
#include "plugin/recording/recordedendpoints.h"
#include "recording/compression.h"
#include "recording/recorder.h"

#include <utility>

namespace inputkit {
namespace {

recording::WriterOptions writerOptions(const RecordingOptions &options)
{
    recording::WriterOptions writer;
    writer.fileBytes = options.fileBytes;
    writer.keep = options.keep;
    writer.withPayload = options.withPayload;
    writer.compress = options.compress;
    return writer;
}

recording::RecorderNotices noticesOf(const QString &file)
{
    return {[file](const QString &reason) {
                CWRN(QtWarningMsg, QStringLiteral("Bytes are missing in the recording %1: %2"),
                     file, reason);
            },
            [file](quint64 bytes) {
                CWRN(QtWarningMsg, QStringLiteral("Recording %1 goes on: %2 bytes are missing"),
                     file, bytes);
            },
            [file](quint64 bytes) {
                CWRN(QtWarningMsg, QStringLiteral("Recording %1 ends early: %2 bytes are missing"),
                     file, bytes);
            }};
}

} // namespace

struct TrafficRecorder::Parts
{
    recording::Recorder recorder;
};

TrafficRecorder::TrafficRecorder(RecordingOptions given)
    : options(std::move(given)),
      parts(new Parts{{writerOptions(options), noticesOf(options.file)}})
{}

TrafficRecorder::~TrafficRecorder() = default;

void TrafficRecorder::finish()
{
    parts->recorder.finish();
}

bool TrafficRecorder::start()
{
    if (options.compress && !recording::canCompress()) {
        error = QStringLiteral("Cannot compress recordings: this program was built without zstd");
        return false;
    }
    if (!parts->recorder.start(options.file)) {
        error = QStringLiteral("Cannot record to %1: %2")
                        .arg(options.file, parts->recorder.errorString());
        return false;
    }
    const recording::PutAside old = parts->recorder.putAside();
    if (!old.name.isEmpty())
        CWRN(QtWarningMsg, QStringLiteral("Recording %1 is not continued, it is now %2: %3"),
             options.file, old.name, old.reason);
    return true;
}

void TrafficRecorder::read(const Origin &origin, quint64 position, QByteArrayView bytes)
{
    if (position == 0)
        parts->recorder.begin(origin.connection, endpointsOf(origin));
    parts->recorder.bytes(origin.connection, position, bytes);
}

void TrafficRecorder::ended(const Origin &origin, const QString &reason, quint64 position)
{
    if (position == 0) // it has brought nothing
        parts->recorder.begin(origin.connection, endpointsOf(origin));
    parts->recorder.end(origin.connection, position, reason.toUtf8());
}

} // namespace inputkit
