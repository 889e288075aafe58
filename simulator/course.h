// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include "simulator/ending.h"

#include <QtCore/QtGlobal>

#include <memory>
#include <optional>

namespace simulator {

class MessageSource;
class Schedule;
struct Run;

/*!
    What one device does: over how many connections, which messages it sends when, and how each
    connection ends.

    Thread: the main thread.
    Owner:  the Device.
*/
class Course
{
public:
    // The numbers of a connection's messages; none if last < first.
    struct Messages
    {
        quint64 first = 1;
        quint64 last = 0;
    };

    Course() = default;
    virtual ~Course() = default;
    Q_DISABLE_COPY_MOVE(Course)

    // Whether there is another connection behind those that were begun, and how many milliseconds
    // later.
    virtual bool hasNext() const = 0;
    virtual qint64 pauseMs() const { return 0; }
    // Begins the next connection.
    virtual void next() = 0;

    // Of the current connection.
    virtual Messages messages() const = 0;
    virtual const MessageSource &source() const = 0;
    virtual Schedule &schedule() = 0; // one for all connections
    // As far as it is known: asked for when the connection begins, and behind endsAfter().
    virtual Ending ending() const = 0;
    // Whether the connection ends now, although messages() has more. Asked for when everything that
    // is due was sent. sent: the number of the last message of that.
    virtual bool endsAfter(quint64 sent);
    // More messages may have come for a connection that has sent everything that was due.
    virtual void goOn() {}
};

// What the device does in this run. device: from 1.
std::unique_ptr<Course> courseOf(const Run &run, quint64 device);

} // namespace simulator
