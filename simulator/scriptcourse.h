// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include "simulator/course.h"
#include "simulator/messagesource.h"
#include "simulator/schedule.h"
#include "simulator/script.h"

#include <QtCore/QElapsedTimer>

namespace simulator {

/*!
    A device that plays a script. A pause begins when everything before it was sent.

    Thread: the main thread.
    Owner:  the Device.
*/
class ScriptCourse : public Course, private Schedule, private MessageSource
{
public:
    // device: from 1. The script outlives it.
    ScriptCourse(const Run &sharedRun, const Script &script);

    bool hasNext() const override { return isMore; }
    qint64 pauseMs() const override { return pauseBeforeMs; }
    void next() override;
    Messages messages() const override;
    const MessageSource &source() const override { return *this; }
    Schedule &schedule() override { return *this; }
    Ending ending() const override;
    bool endsAfter(quint64 sent) override;

private:
    // Schedule
    void start() override;
    quint64 due() const override;
    int msUntil(quint64 number) const override;

    // MessageSource
    bool append(QByteArray &out, quint64 device, quint64 number) const override;
    qsizetype usualBytes() const override { return 1; }

    qint64 takePauses();
    void fetch();

    const Run &run;
    ScriptCursor cursor;
    QElapsedTimer clock;
    quint64 fetched = 0; // number of the last message that was taken out of the script
    const Script::Step *message = nullptr; // that message
    qint64 dueMs = 0; // when that message, or the end, is due
    bool isEnding = false; // no further message in this connection
    const Script::Step *last = nullptr; // the step that ends the connection; null: none
    qint64 pauseBeforeMs = 0; // before the next connection
    bool isMore = true;
};

} // namespace simulator
