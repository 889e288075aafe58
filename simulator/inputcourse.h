// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include "simulator/course.h"
#include "simulator/pace.h"

#include <optional>

namespace simulator {

class InputLines;

/*!
    A device that sends each line of standard input as soon as it has come, in one connection.

    Thread: the main thread.
    Owner:  the Device.
*/
class InputCourse : public Course, private Schedule
{
public:
    // device: from 1.
    InputCourse(const Run &sharedRun, InputLines &lines, quint64 deviceNumber);
    ~InputCourse() override;

    bool hasNext() const override { return !isBegun; }
    void next() override { isBegun = true; }
    Messages messages() const override;
    const MessageSource &source() const override;
    Schedule &schedule() override { return *this; }
    Ending ending() const override;
    bool endsAfter(quint64 sent) override;
    void goOn() override;

private:
    // Schedule
    void start() override { pace.start(); }
    quint64 due() const override;
    int msUntil(quint64 number) const override;

    const Run &run;
    InputLines &input;
    const quint64 device;
    Pace pace;
    bool isBegun = false;
    std::optional<quint64> awaited; // the next line, if it has not come yet
};

} // namespace simulator
