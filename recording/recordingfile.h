// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include <QtCore/QByteArrayView>
#include <QtCore/QString>

#include <atomic>

namespace recording {

//! A recording that was there and is not continued.
struct PutAside
{
    QString name; // that it has now; empty: there was none
    QString reason;
};

/*!
    The file that a recording goes to: appends to it, and begins a new one when it is large enough.

    A file that exists is continued: a torn entry at its end is cut off first. One that is damaged,
   or so large that reading it would take seconds, is put aside, and a new one begins. What is no
   recording is left alone. While it is open, no other program can record to it.

    What is not a regular file, a pipe for example, can be written to as well. It is not read
   before, and after a write that ended in the middle of an entry nothing more goes there.

    Thread: one at a time; giveUpSoon() any.
*/
class RecordingFile
{
public:
    RecordingFile() = default;
    ~RecordingFile();
    Q_DISABLE_COPY_MOVE(RecordingFile)

    // Opens the file, or makes it. Does not wait for the reader of a pipe. False if that is not
    // possible: see errorString().
    bool open(const QString &name);

    // Appends all of the bytes, and before the first ones the file's header. False: none was
    // appended, see errorString(); a later try may succeed. Waits for the target.
    bool append(QByteArrayView bytes);

    // Renames the file to the next of FinishedFiles, and begins a new one under the old name. keep:
    // how many renamed ones stay, the newest; 0: all. False: the old one is still in use.
    bool beginNext(int keep);

    // What open() has found.
    PutAside putAside() const { return aside; }
    qint64 size() const { return target.size; }
    bool canBeginNext() const { return target.isRegular; }
    QString errorString() const { return error; }

    // From now on append() waits a second at most for the reader of a pipe.
    void giveUpSoon() { hasPatience = false; }

private:
    struct Target
    {
        int fd = -1;
        bool isRegular = true;
        bool isBroken = false; // something has ended in the middle, and cannot be cut off
        qint64 size = 0; // bytes of header and whole entries
    };

    int openFile() const;
    bool prepare();
    bool continueFile(qint64 size);
    bool beginAnew(const QString &reason);
    bool cutOffRest();
    bool writeAll(QByteArrayView bytes, qsizetype &done);
    bool waitUntilWritable() const;
    bool fail(const QString &text);
    bool failWithErrno();

    QString fileName;
    QString error;
    PutAside aside;
    Target target;
    std::atomic<bool> hasPatience = true;
};

} // namespace recording
