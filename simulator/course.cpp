// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "simulator/course.h"

#include "simulator/inputcourse.h"
#include "simulator/pace.h"
#include "simulator/replay.h"
#include "simulator/run.h"
#include "simulator/scriptcourse.h"
#include "simulator/timetable.h"

#include <limits>

namespace simulator {
namespace {

// Number of the last message that a device sends over its first `connection` connections.
quint64 lastMessage(const Options &options, quint64 connection)
{
    const bool saysNothing =
            options.fault == Fault::Silent || options.fault == Fault::AbortHandshake;
    if (connection == 0 || saysNothing)
        return 0;
    if (options.messages == 0)
        return std::numeric_limits<quint64>::max();
    const quint64 connections = options.reconnect + 1;
    const quint64 share = options.messages / connections;
    return share * connection + qMin(connection, options.messages % connections);
}

/*!
    As many messages as the options say, spread evenly over the connections.
*/
class CountedCourse : public Course
{
public:
    explicit CountedCourse(const Run &sharedRun) : run(sharedRun), pace(sharedRun.options.rate) {}

    bool hasNext() const override { return connection <= run.options.reconnect; }
    void next() override { ++connection; }
    Messages messages() const override
    {
        return {lastMessage(run.options, connection - 1) + 1, lastMessage(run.options, connection)};
    }
    const MessageSource &source() const override { return run.messages; }
    Schedule &schedule() override { return pace; }
    Ending ending() const override { return endingFor(run.options, !hasNext()); }

private:
    const Run &run;
    Pace pace;
    quint64 connection = 0; // from 1
};

/*!
    One connection of a recording.
*/
class ReplayCourse : public Course
{
public:
    ReplayCourse(const Run &sharedRun, quint64 deviceNumber)
        : run(sharedRun),
          device(deviceNumber),
          times(run.replay->messageTimes(device), run.options.speed)
    {}

    bool hasNext() const override { return !isBegun; }
    void next() override { isBegun = true; }
    Messages messages() const override { return {1, run.replay->messageCount(device)}; }
    const MessageSource &source() const override { return run.messages; }
    Schedule &schedule() override { return times; }
    Ending ending() const override
    {
        return recordedEnding(run.options, run.replay->restUs(device),
                              run.replay->endsWithReset(device));
    }

private:
    const Run &run;
    const quint64 device;
    Timetable times;
    bool isBegun = false;
};

} // namespace

bool Course::endsAfter(quint64)
{
    return false;
}

std::unique_ptr<Course> courseOf(const Run &run, quint64 device)
{
    if (run.replay)
        return std::make_unique<ReplayCourse>(run, device);
    if (run.script)
        return std::make_unique<ScriptCourse>(run, *run.script);
    if (run.input)
        return std::make_unique<InputCourse>(run, *run.input, device);
    return std::make_unique<CountedCourse>(run);
}

} // namespace simulator
