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
    Count, // only one line, at the end of the program
    None,
};

/*!
    Writes messages to standard output, where nothing else is written.

    The messages of one pass of the event loop are collected and written at its end. So a reader of
    a pipe sees them at once, and many messages cost few system calls. Writing waits for a slow
    reader, and so does everything in this thread: meanwhile the plugin accepts no connection, and
    its offers pile up in memory. A log line tells when this has lasted for a second, and another
    one when it is over. A host that cannot accept this must write in a separate thread, and decide
    what it throws away.

    Thread: its creator's, with an event loop; flush() is enough without one.
*/
class Output : public QObject
{
    Q_OBJECT

public:
    // descriptor: stays the caller's, open for as long as the object lives.
    Output(OutputFormat outputFormat, Framing inputFraming, int outputDescriptor);

    // Whether messages are written with their origin. If not, only its source is needed, for
    // warnings.
    bool showsOrigins() const { return format == OutputFormat::Json; }

    // What all messages of that origin begin with. Empty, unless origins are shown.
    QByteArray headOf(const Origin &origin) const;

    void write(const Message &message);

    // Writes the line of OutputFormat::Count; with other formats, nothing.
    void writeCount(const QString &line);

    void flush();

Q_SIGNALS:
    // Emitted once; everything written later is dropped. reason: the system's error text.
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
