// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "host/sinks/streamsink.h"

#include "plugin/cwrn.h"

#include <QtCore/QDeadlineTimer>
#include <QtCore/QFile>
#include <QtCore/QThread>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace host {
namespace {

constexpr qsizetype FlushAboveBytes = 64 * 1024;
constexpr std::chrono::milliseconds StallTime(1000); // a warning comes after it
constexpr std::chrono::milliseconds RetryInterval(1000);
constexpr qsizetype KeepAtMostBytes = 1024 * 1024; // of a batch's memory, for the next one

QString textOf(int error)
{
    return QString::fromLocal8Bit(std::strerror(error));
}

// Somebody may make room.
bool isFullDisk(int error)
{
    return error == ENOSPC || error == EDQUOT;
}

} // namespace

StreamSink::StreamSink(StreamFormat streamFormat, int descriptor)
    : StreamSink(streamFormat, {}, descriptor)
{}

StreamSink::StreamSink(StreamFormat streamFormat, QString outputFile)
    : StreamSink(streamFormat, std::move(outputFile), -1)
{}

StreamSink::StreamSink(StreamFormat streamFormat, QString outputFile, int descriptor)
    : format(streamFormat),
      fileName(std::move(outputFile))
{
    if (descriptor >= 0)
        stream.emplace(descriptor);
    stallTimer.setSingleShot(true);
    retryTimer.setSingleShot(true);
    connect(&stallTimer, &QTimer::timeout, this, &StreamSink::noteStall);
    connect(&retryTimer, &QTimer::timeout, this, &StreamSink::flush);
}

StreamSink::~StreamSink()
{
    writable.reset();
    if (fd >= 0)
        ::close(fd);
}

bool StreamSink::open()
{
    if (fileName.isEmpty() || openFile())
        return true;
    error = QStringLiteral("Cannot open %1: %2").arg(fileName, textOf(errno));
    return false;
}

// False: errno says why, and the file that was open stays open.
bool StreamSink::openFile()
{
    // A pipe without a reader is refused: nobody could stop a program that waits for one.
    constexpr int flags = O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC | O_NONBLOCK | O_NOCTTY;
    constexpr mode_t ownerAndGroup = 0640;
    const int opened = ::open(QFile::encodeName(fileName).constData(), flags, ownerAndGroup);
    if (opened < 0)
        return false;
    writable.reset();
    if (fd >= 0)
        ::close(fd);
    fd = opened;
    stream.emplace(fd);
    endLine();
    return true;
}

// Otherwise the first message would go on with a line that is only half there.
void StreamSink::endLine()
{
    needsLineEnd = false;
    struct stat status = {};
    if (!format.isLines() || ::fstat(fd, &status) != 0 || !S_ISREG(status.st_mode))
        return;
    if (status.st_size == 0)
        return;
    QFile file(fileName);
    char last = 0; // a file that cannot be read gets an empty line at worst
    if (file.open(QIODevice::ReadOnly) && file.seek(status.st_size - 1))
        file.getChar(&last);
    needsLineEnd = last != '\n';
}

QString StreamSink::name() const
{
    return fileName.isEmpty() ? QStringLiteral("standard output") : fileName;
}

void StreamSink::write(const Message &message)
{
    format.append(pending, message);
    marks.push_back({offset + static_cast<quint64>(pending.size()), message.origin.connection,
                     message.end});
    setUnsafe(static_cast<qint64>(marks.size()));
    scheduleFlush();
}

void StreamSink::scheduleFlush()
{
    const bool isWaiting = stalledSince.isValid(); // for the reader, or for the disk
    if (!isWaiting && pending.size() - written > FlushAboveBytes)
        flush();
    updateFull();
    if (isWaiting || flushScheduled || marks.empty())
        return;
    // The queued flush() comes after the records that wait already.
    flushScheduled = true;
    QMetaObject::invokeMethod(this, &StreamSink::flush, Qt::QueuedConnection);
}

void StreamSink::flush()
{
    flushScheduled = false;
    while (!broken && written < pending.size() && writeMore()) {}
    settle();
}

// False: not now.
bool StreamSink::writeMore()
{
    const qsizetype size = stream->write(needsLineEnd ? QByteArrayView("\n")
                                                      : QByteArrayView(pending).sliced(written));
    if (size > 0) {
        written += needsLineEnd ? 0 : size;
        needsLineEnd = false;
        noteProgress();
        return true;
    }
    if (!stalledSince.isValid())
        stalledSince.start();
    if (size < 0) {
        handleError(errno);
        return false;
    }
    if (!told && !stallTimer.isActive())
        stallTimer.start(StallTime);
    if (!writable) {
        writable = std::make_unique<QSocketNotifier>(stream->descriptor(), QSocketNotifier::Write);
        connect(writable.get(), &QSocketNotifier::activated, this, &StreamSink::flush);
    }
    writable->setEnabled(true);
    return false;
}

void StreamSink::handleError(int number)
{
    if (isFullDisk(number)) {
        if (!std::exchange(told, true))
            CWRN(QtWarningMsg, QStringLiteral("Cannot write to %1: %2; trying again"), name(),
                 textOf(number));
        retryTimer.start(RetryInterval);
        return;
    }
    broken = true;
    stalledSince.invalidate();
    Q_EMIT failed(QStringLiteral("Cannot write to %1: %2").arg(name(), textOf(number)));
}

void StreamSink::noteStall()
{
    told = true;
    CWRN(QtWarningMsg, QStringLiteral("Nobody reads %1: messages wait for that"), name());
}

void StreamSink::noteProgress()
{
    if (!stalledSince.isValid())
        return;
    stallTimer.stop();
    if (std::exchange(told, false))
        CWRN(QtWarningMsg, QStringLiteral("Writing to %1 goes on, after %2 ms"), name(),
             stalledSince.elapsed());
    stalledSince.invalidate();
}

// Says what is safe, and forgets it.
void StreamSink::settle()
{
    const quint64 reached = offset + static_cast<quint64>(written);
    Mark last;
    while (!broken && !marks.empty() && marks.front().offset <= reached) {
        const Mark mark = std::exchange(marks.front(), {});
        marks.pop_front();
        if (last.connection != mark.connection && last.connection != 0)
            Q_EMIT safe(last.connection, last.end);
        last = mark;
    }
    if (last.offset > 0)
        settled = last.offset;
    if (last.connection != 0)
        Q_EMIT safe(last.connection, last.end);
    dropWritten();
    setUnsafe(static_cast<qint64>(marks.size()));
    if (writable && !stalledSince.isValid())
        writable->setEnabled(false);
    updateFull();
}

// The beginning of a message that is not complete stays: reopen() may need it once more.
void StreamSink::dropWritten()
{
    if (broken || written == pending.size()) {
        offset += static_cast<quint64>(pending.size());
        written = 0;
        marks.clear();
        if (pending.capacity() > KeepAtMostBytes)
            pending = {};
        else
            pending.resize(0);
        return;
    }
    const auto done = static_cast<qsizetype>(settled - std::min(settled, offset));
    if (done < std::max(FlushAboveBytes, pending.size() / 2)) // a removal moves the rest
        return;
    pending.remove(0, done);
    written -= done;
    offset += static_cast<quint64>(done);
}

void StreamSink::updateFull()
{
    constexpr auto MarkBytes = static_cast<qsizetype>(sizeof(Mark));
    const qsizetype notes =
            static_cast<qsizetype>(marks.size()) * MarkBytes; // of short messages: most
    const qsizetype waiting = pending.size() - written + notes;
    setFull(waiting > (isFull() ? MostWaiting / 2 : MostWaiting));
}

qint64 StreamSink::finish(std::chrono::milliseconds atMost)
{
    const QDeadlineTimer deadline(atMost);
    flush();
    while (!broken && written < pending.size() && !deadline.hasExpired())
        waitForRoom(
                static_cast<int>(std::min<qint64>(deadline.remainingTime(), StallTime.count())));
    return static_cast<qint64>(marks.size());
}

void StreamSink::makeRoom()
{
    while (!broken && isFull())
        waitForRoom(StallTime.count());
}

void StreamSink::waitForRoom(int ms)
{
    if (retryTimer.isActive())
        QThread::msleep(static_cast<unsigned long>(std::min(ms, 100)));
    else if (!stream->waitUntilWritable(ms) && !told && ms == StallTime.count())
        noteStall();
    flush();
}

void StreamSink::reopen()
{
    if (fileName.isEmpty() || broken)
        return;
    flush();
    const int old = fd;
    const auto half = written - static_cast<qsizetype>(settled - std::min(settled, offset));
    if (written < pending.size() && half > 0) {
        // The whole message goes to the next file, so its half is taken out of this one.
        const off_t size = ::lseek(old, 0, SEEK_END);
        if (size >= half && ::ftruncate(old, size - half) == 0)
            written -= half;
    }
    if (!openFile()) {
        CWRN(QtWarningMsg, QStringLiteral("Cannot open %1: %2; the old file is written on"),
             fileName, textOf(errno));
        return;
    }
    CWRN(QtInfoMsg, QStringLiteral("%1 opened again"), fileName);
    flush();
}

} // namespace host
