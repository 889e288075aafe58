// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "recording/recordingfile.h"

#include "recording/finishedfiles.h"
#include "recording/format.h"
#include "recording/recordingreader.h"

#include <QtCore/QFile>

#include <cerrno>
#include <utility>

#include <fcntl.h>
#include <poll.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

namespace recording {
namespace {

constexpr qint64 LargestContinued = 1024 * 1024 * 1024; // reading it takes some seconds
constexpr int PatienceStepMs = 100;
constexpr int LastPatienceMs = 1000; // with a pipe that nobody reads, at the end
constexpr mode_t FileMode = 0640; // recordings hold what devices have sent

// After a power failure a file may have its size, and nothing of what was written.
bool hasZerosOnly(QFile &file)
{
    constexpr qint64 PieceBytes = 64 * 1024;
    if (!file.seek(0))
        return false;
    while (true) {
        const QByteArray piece = file.read(PieceBytes);
        if (piece.count('\0') != piece.size())
            return false;
        if (piece.isEmpty())
            return file.atEnd();
    }
}

} // namespace

RecordingFile::~RecordingFile()
{
    if (target.fd >= 0)
        ::close(target.fd);
}

bool RecordingFile::open(const QString &name)
{
    fileName = name;
    aside = {};
    const int fd = openFile();
    if (fd < 0)
        return failWithErrno();
    const Target old = std::exchange(target, Target{fd});
    const bool isPrepared = prepare();
    const Target unused = isPrepared ? old : std::exchange(target, old);
    if (unused.fd >= 0)
        ::close(unused.fd);
    return isPrepared;
}

// Read and write: a pipe then opens without a reader. Not blocking: see waitUntilWritable().
int RecordingFile::openFile() const
{
    return ::open(QFile::encodeName(fileName).constData(),
                  O_RDWR | O_CREAT | O_CLOEXEC | O_NONBLOCK | O_NOCTTY, FileMode);
}

bool RecordingFile::prepare()
{
    struct stat status = {};
    if (::fstat(target.fd, &status) != 0)
        return failWithErrno();
    // A device like /dev/null is everybody's.
    if (!S_ISCHR(status.st_mode) && ::flock(target.fd, LOCK_EX | LOCK_NB) != 0)
        return errno == EWOULDBLOCK ? fail(QStringLiteral("another program records to it"))
                                    : failWithErrno();
    target.isRegular = S_ISREG(status.st_mode);
    return !target.isRegular || continueFile(status.st_size);
}

bool RecordingFile::continueFile(qint64 size)
{
    QFile file;
    if (!file.open(target.fd, QIODevice::ReadOnly, QFileDevice::DontCloseHandle))
        return fail(file.errorString());
    RecordingReader reader(file);
    // Its first entry tells whether it is a recording.
    while (reader.next() && size <= LargestContinued) {}
    switch (reader.state()) {
    case RecordingReader::State::Reading:
        return beginAnew(QStringLiteral("it has %1 bytes").arg(size));
    case RecordingReader::State::Damaged:
        return beginAnew(reader.errorString());
    case RecordingReader::State::CleanEnd:
    case RecordingReader::State::TornEnd:
        target.size = reader.goodBytes();
        return cutOffRest() || failWithErrno();
    case RecordingReader::State::NoRecording:
        if (hasZerosOnly(file))
            return beginAnew(QStringLiteral("it has nothing but zeros"));
        break;
    default:
        break;
    }
    return fail(reader.errorString());
}

// The old file is locked until it has its other name.
bool RecordingFile::beginAnew(const QString &reason)
{
    const QString next = FinishedFiles(fileName).next();
    if (next.isEmpty())
        return fail(reason);
    if (::rename(QFile::encodeName(fileName).constData(), QFile::encodeName(next).constData()) != 0)
        return failWithErrno();
    aside = {next, reason};
    const int fd = openFile();
    if (fd < 0)
        return failWithErrno();
    ::close(std::exchange(target.fd, fd));
    return prepare();
}

// What is behind the last whole entry. Appending then goes on there.
bool RecordingFile::cutOffRest()
{
    return ::ftruncate(target.fd, target.size) == 0
            && ::lseek(target.fd, target.size, SEEK_SET) == target.size;
}

bool RecordingFile::append(QByteArrayView bytes)
{
    if (target.isBroken)
        return false; // the error is known
    qsizetype done = 0;
    const bool isWritten = target.size > 0 ? writeAll(bytes, done)
                                           : writeAll(fileHeader() + bytes.toByteArray(), done);
    if (isWritten)
        target.size += done;
    else if (done > 0) // an entry must not begin behind half of another one
        target.isBroken = !target.isRegular || !cutOffRest();
    return isWritten;
}

// done: how many were written in any case.
bool RecordingFile::writeAll(QByteArrayView bytes, qsizetype &done)
{
    while (done < bytes.size()) {
        const QByteArrayView rest = bytes.sliced(done);
        const ssize_t size = ::write(target.fd, rest.data(), static_cast<std::size_t>(rest.size()));
        if (size >= 0)
            done += size;
        else if (errno == EAGAIN && !waitUntilWritable())
            return fail(QStringLiteral("nobody reads it"));
        else if (errno != EAGAIN && errno != EINTR)
            return failWithErrno();
    }
    return true;
}

bool RecordingFile::waitUntilWritable() const
{
    for (int waitedMs = 0; hasPatience || waitedMs < LastPatienceMs; waitedMs += PatienceStepMs) {
        pollfd request = {target.fd, POLLOUT, 0};
        if (::poll(&request, 1, PatienceStepMs) > 0)
            return true;
        if (hasPatience)
            waitedMs = 0;
    }
    return false;
}

bool RecordingFile::beginNext(int keep)
{
    const FinishedFiles finished(fileName);
    if (finished.next().isEmpty())
        return fail(QStringLiteral("it has no number left"));
    const QByteArray name = QFile::encodeName(fileName);
    const QByteArray next = QFile::encodeName(finished.next());
    if (::rename(name.constData(), next.constData()) != 0)
        return failWithErrno();
    if (!open(fileName)) {
        const QString reason = error;
        ::rename(next.constData(), name.constData());
        return fail(reason);
    }
    if (keep > 0)
        finished.removeAllBut(keep);
    return true;
}

bool RecordingFile::fail(const QString &text)
{
    error = text;
    return false;
}

bool RecordingFile::failWithErrno()
{
    return fail(qt_error_string(errno));
}

} // namespace recording
