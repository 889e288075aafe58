// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "simulator/inputcourse.h"

#include "simulator/inputlines.h"
#include "simulator/run.h"

#include <limits>

namespace simulator {
namespace {

constexpr int LongestMs = 24 * 3600 * 1000; // after so long a wait the caller asks again

} // namespace

InputCourse::InputCourse(const Run &sharedRun, InputLines &lines, quint64 deviceNumber)
    : run(sharedRun),
      input(lines),
      device(deviceNumber),
      pace(run.options.rate)
{}

InputCourse::~InputCourse()
{
    input.leave(device);
}

Course::Messages InputCourse::messages() const
{
    return {1, std::numeric_limits<quint64>::max()};
}

const MessageSource &InputCourse::source() const
{
    return run.messages;
}

Ending InputCourse::ending() const
{
    return endingFor(run.options, true);
}

bool InputCourse::endsAfter(quint64 sent)
{
    input.passed(device, sent);
    awaited = sent == input.count() ? std::optional(sent + 1) : std::nullopt;
    return input.hasEnded() && sent == input.count();
}

// Time without a line does not make later lines come in a burst.
void InputCourse::goOn()
{
    if (awaited)
        pace.delay(*awaited);
}

quint64 InputCourse::due() const
{
    return qMin(pace.due(), input.count());
}

int InputCourse::msUntil(quint64 number) const
{
    return number > input.count() ? LongestMs : pace.msUntil(number);
}

} // namespace simulator
