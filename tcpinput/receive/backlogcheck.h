// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include "tcpinput/receive/backlogwatch.h"
#include "tcpinput/receive/unconsumedbytes.h"

#include <QtCore/QTimer>

#include <chrono>

/*!
    A timer that fires while a connection holds more than AboveBytes: every 2 s, counted from its
    construction. It does not run otherwise. A thread with thousands of connections would do little
    else than check buffers, most of them empty.

    Thread: its creator's.
    Owner:  the client, as a member.
*/
class BacklogCheck final : public QTimer, private BacklogWatch::Watched
{
public:
    // A connection is checked while it holds more than this.
    static constexpr qsizetype AboveBytes = 80;

    // bytes: the connection's; not owned, outlives the check.
    explicit BacklogCheck(const UnconsumedBytes &bytes);
    ~BacklogCheck() override;
    Q_DISABLE_COPY_MOVE(BacklogCheck)

    // value: not owned, in the same thread, outlives the check. Default: null; each backlog then
    // starts the timer at once.
    void setWatch(BacklogWatch *value) { watch = value; }

    // To be called after a read. size: of the unconsumed bytes.
    void bytesCame(qsizetype size);
    // Starts the timer for the next multiple of the interval.
    void startNext();

private:
    void endWatch() override;

    const UnconsumedBytes &unconsumed;
    const std::chrono::steady_clock::time_point created;
    BacklogWatch *watch = nullptr;
    BacklogWatch::Place place = BacklogWatch::None;
};
