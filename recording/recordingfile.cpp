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

constexpr int PatienceStepMs = 100;
constexpr int LastPatienceMs = 1000; // with a pipe that nobody reads, at the end
constexpr mode_t FileMode = 0640; // recordings hold what devices have sent

} // namespace

RecordingFile::~RecordingFile()
{
    if (target.fd >= 0)
        ::close(target.fd);
}

bool RecordingFile::open(const QString &name)
{
    fileName = name;
    // Read and write: a pipe then opens without a reader. Not blocking: see waitUntilWritable().
    const int fd = ::open(QFile::encodeName(name).constData(),
                          O_RDWR | O_CREAT | O_CLOEXEC | O_NONBLOCK | O_NOCTTY, FileMode);
    if (fd < 0)
        return failWithErrno();
    const Target old = std::exchange(target, Target{fd});
    const bool isPrepared = prepare();
    const int unused = isPrepared ? old.fd : fd;
    if (!isPrepared)
        target = old;
    if (unused >= 0)
        ::close(unused);
    return isPrepared;
}

bool RecordingFile::prepare()
{
    if (::flock(target.fd, LOCK_EX | LOCK_NB) != 0)
        return errno == EWOULDBLOCK ? fail(QStringLiteral("another program records to it"))
                                    : failWithErrno();
    struct stat status = {};
    if (::fstat(target.fd, &status) != 0)
        return failWithErrno();
    target.isRegular = S_ISREG(status.st_mode);
    if (!target.isRegular)
        return true;
    const qint64 size = bytesToKeep();
    if (size < 0)
        return false;
    target.size = size;
    return cutOffRest() || failWithErrno();
}

// What is behind the last whole entry. Appending then goes on there.
bool RecordingFile::cutOffRest()
{
    return ::ftruncate(target.fd, target.size) == 0
            && ::lseek(target.fd, target.size, SEEK_SET) == target.size;
}

// How much of a file that exists is good. -1, with an error, if it must not be touched.
qint64 RecordingFile::bytesToKeep()
{
    QFile file;
    if (!file.open(target.fd, QIODevice::ReadOnly, QFileDevice::DontCloseHandle)) {
        fail(file.errorString());
        return -1;
    }
    RecordingReader reader(file);
    while (reader.next()) {}
    switch (reader.state()) {
    case RecordingReader::State::CleanEnd:
    case RecordingReader::State::TornEnd:
        return reader.goodBytes();
    default:
        fail(reader.errorString());
        return -1;
    }
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
