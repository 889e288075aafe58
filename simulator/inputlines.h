// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include "simulator/linesource.h"
#include "simulator/options.h"

#include <QtCore/QByteArrayList>
#include <QtCore/QObject>
#include <QtCore/QSocketNotifier>

#include <vector>

namespace simulator {

/*!
    The payloads that come over a pipe or a terminal, line by line.

    Every device sends each of them, so a line stays in memory until the last device has sent it.
    While many lines wait for a device, no more are read.

    Thread: the main thread.
*/
class InputLines : public QObject, public LineSource
{
    Q_OBJECT

public:
    // Whether a descriptor brings its bytes as they come. Others, a file for example, are read as a
    // whole.
    static bool isStream(int descriptor);

    // descriptor: stays the caller's. given: the syntax, the count of devices, and, if there is no
    // template, the framing that payloads have to fit.
    InputLines(int descriptor, const Options &given);

    void start();

    quint64 count() const { return dropped + static_cast<quint64>(payloads.size()); } // so far
    bool hasEnded() const { return ended; } // count() is final
    bool hadFaults() const { return faulty; } // a line was left out

    // number: of a line that a device has not sent yet; otherwise the payload is empty.
    QByteArray line(quint64 number) const override;

    // The device has sent the lines up to this one; or it will send no more.
    void passed(quint64 device, quint64 number);
    void leave(quint64 device);

Q_SIGNALS:
    void came(); // more lines, or the end
    void complained(const QString &text);

private Q_SLOTS:
    void onReadable();

private:
    void take(const QByteArray &bytes);
    void takeLine(QByteArrayView text);
    void end();
    void drop();
    void readOn();
    void complain(const QString &text);

    const int fd;
    const Options &options;
    QSocketNotifier readable{QSocketNotifier::Read};
    QByteArray rest; // of a line whose end has not come
    bool isSkipping = false; // the rest of a line that is too long
    quint64 lineNumber = 0;
    QByteArrayList payloads;
    qsizetype keptBytes = 0; // of these
    quint64 dropped = 0; // lines before these
    std::vector<quint64> positions; // what each device has sent
    bool ended = false;
    bool faulty = false;
};

} // namespace simulator
