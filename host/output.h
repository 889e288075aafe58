// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include "host/framing.h"
#include "host/message.h"
#include "host/standardstream.h"

#include <QtCore/QByteArray>
#include <QtCore/QObject>

namespace host {

enum class OutputFormat {
    Json, // one object a line
    Raw, // the bytes with the framing that they came with
    Count, // nothing but the line that the program ends with
    None,
};

/*!
    Writes messages to standard output, where nothing else is written.

    What one pass of the event loop brings is collected and written at its end, so that a reader of
    a pipe sees messages at once, and many of them cost one system call. Writing waits for a slow
    reader, and so does everything in this thread: the plugin accepts no connection and its offers
    pile up in memory meanwhile. A line tells when that has lasted for a second, and one its end. A
    host that cannot accept this writes in a thread of its own and has to decide what it throws
    away.

    Thread: its creator's, with an event loop; flush() is enough without one.
*/
class Output : public QObject
{
    Q_OBJECT

public:
    // descriptor: stays the caller's, open for as long as the object lives.
    Output(OutputFormat outputFormat, Framing inputFraming, int outputDescriptor);

    // Whether anything but the source of a message's origin is of interest.
    bool showsOrigins() const { return format == OutputFormat::Json; }

    // What all messages of that origin begin with. Empty, unless origins are shown.
    QByteArray headOf(const Origin &origin) const;

    void write(const Message &message);

    // A line in place of records; only for OutputFormat::Count.
    void writeCount(const QString &line);

    void flush();

Q_SIGNALS:
    // Once: from then on everything written is dropped. reason: as the system tells.
    void failed(const QString &reason);

private:
    void scheduleFlush();
    int writeAll(QByteArrayView bytes);

    const OutputFormat format;
    const Framing framing;
    const StandardStream stream;
    QByteArray pending; // keeps its memory between two batches
    bool flushScheduled = false;
    bool broken = false;
};

} // namespace host
