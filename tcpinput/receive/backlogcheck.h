// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include "tcpinput/receive/backlogwatch.h"
#include "tcpinput/receive/unconsumedbytes.h"

#include <QtCore/QTimer>

#include <chrono>

/*!
    Comes due, as a timer, while a connection holds more bytes than a host leaves: every 2 s,
   counted from when it was made. A thread with thousands of connections would do little else than
   check buffers, most of them empty: those are left out.

    Thread: its creator's.
    Owner:  the client, as a member.
*/
class BacklogCheck final : public QTimer, private BacklogWatch::Watched
{
public:
    // A connection is checked while it holds more than this.
    static constexpr qsizetype AboveBytes = 80;

    // bytes: the connection's. Not owned, outlives the check.
    explicit BacklogCheck(const UnconsumedBytes &bytes);
    ~BacklogCheck() override;
    Q_DISABLE_COPY_MOVE(BacklogCheck)

    // Not owned, and outlives the check; of the same thread. Without one, which is the default, a
    // timer is started for each backlog at once.
    void setWatch(BacklogWatch *value) { watch = value; }

    // A read has left that many bytes.
    void bytesCame(qsizetype size);
    // Comes due at the next multiple of the interval.
    void startNext();

private:
    void endWatch() override;

    const UnconsumedBytes &unconsumed;
    const std::chrono::steady_clock::time_point created;
    BacklogWatch *watch = nullptr;
    BacklogWatch::Place place = BacklogWatch::None;
};
