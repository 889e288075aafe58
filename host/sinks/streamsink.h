// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include "host/sinks/sink.h"
#include "host/sinks/streamformat.h"
#include "host/standardstream.h"

#include <QtCore/QByteArray>
#include <QtCore/QElapsedTimer>
#include <QtCore/QSocketNotifier>
#include <QtCore/QString>
#include <QtCore/QTimer>

#include <deque>
#include <memory>
#include <optional>

namespace host {

/*!
    Writes messages to standard output, where nothing else is written, or to a file.

    The messages of one pass of the event loop are collected and written at its end. So a reader of
    a pipe sees them at once, and many messages cost few system calls. Nothing waits for a slow
    reader: what it does not take is kept, and beyond 8 MiB the sink is full. A log line tells when
    this has lasted for a second, and another one when it is over. While the disk is full, the sink
    tries again every second.

    A message is safe when the system has taken all of its bytes: a reader of a pipe may still lose
    it, and so may a power failure.

    Thread: its creator's, with an event loop; flush() and finish() are enough without one.
*/
class StreamSink : public Sink
{
    Q_OBJECT

public:
    // The sink is full when so many bytes wait, and not full again when half as many do.
    static constexpr qsizetype MostWaiting = 8 * 1024 * 1024;

    // descriptor: stays the caller's, open for as long as the object lives.
    StreamSink(StreamFormat streamFormat, int descriptor);
    // A file that exists is continued. If its last line has no end, because a program was killed
    // or the disk was full, that line is ended first.
    StreamSink(StreamFormat streamFormat, QString outputFile);
    ~StreamSink() override;

    bool open() override;
    bool showsOrigins() const override { return format.showsOrigins(); }
    QByteArray headOf(const Origin &origin) const override { return format.headOf(origin); }
    void write(const Message &message) override;
    qint64 finish(std::chrono::milliseconds atMost) override;
    void makeRoom() override;
    // Of a file: goes on with the one that has its name now, or with a new one. If that cannot be
    // opened, a line says so, and the old one is written on.
    void reopen() override;

    // Writes as much as the stream takes now.
    void flush();

private:
    StreamSink(StreamFormat streamFormat, QString outputFile, int descriptor);

    //! Where a message's bytes end.
    struct Mark
    {
        quint64 offset = 0; // in all bytes that were ever written
        quint64 connection = 0; // 0: nobody waits for it
        quint64 end = 0;
    };

    bool openFile();
    void endLine();
    QString name() const;

    void scheduleFlush();
    bool writeMore();
    void handleError(int error);
    void noteStall();
    void noteProgress();
    void settle();
    void dropWritten();
    void waitForRoom(int ms);
    void updateFull();

    const StreamFormat format;
    const QString fileName; // empty: standard output
    int fd = -1; // the file's; owned
    std::optional<StandardStream> stream;
    std::unique_ptr<QSocketNotifier> writable; // while the reader does not take more

    QByteArray pending; // keeps its memory between two batches
    qsizetype written = 0; // of these bytes
    quint64 offset = 0; // of its first byte in all bytes that were ever written
    quint64 settled = 0; // the last message that is written completely ends there
    bool needsLineEnd = false; // the file's last line has none
    std::deque<Mark> marks; // of the messages that are not written completely

    QTimer stallTimer; // until a line is due that nobody reads
    QTimer retryTimer; // the disk is full
    QElapsedTimer stalledSince; // valid: nothing can be written
    bool told = false; // of that
    bool flushScheduled = false;
    bool broken = false;
};

} // namespace host
