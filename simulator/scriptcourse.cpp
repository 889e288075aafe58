// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "simulator/scriptcourse.h"

#include "simulator/run.h"

#include <QtCore/QDateTime>

#include <algorithm>
#include <limits>

namespace simulator {
namespace {

constexpr qint64 LongestMs = 24 * 3600 * 1000; // after so long a wait the caller asks again

} // namespace

ScriptCourse::ScriptCourse(const Run &sharedRun, const Script &script)
    : run(sharedRun),
      cursor(script)
{
    clock.start();
}

void ScriptCourse::next()
{
    isEnding = false;
    last = nullptr;
}

Course::Messages ScriptCourse::messages() const
{
    return {fetched + 1, std::numeric_limits<quint64>::max()};
}

Ending ScriptCourse::ending() const
{
    const Script::Step::Kind kind = last ? last->kind : Script::Step::Close;
    if (kind == Script::Step::Reset)
        return resetEnding();
    if (kind == Script::Step::HalfClose)
        return halfClose(static_cast<int>(last->ms));
    if (kind == Script::Step::WaitClose)
        return stay(static_cast<int>(last->ms));
    return orderlyClose(run.options);
}

bool ScriptCourse::endsAfter(quint64 sent)
{
    if (sent == fetched && !isEnding)
        fetch();
    return isEnding && clock.elapsed() >= dueMs;
}

// Takes the next message out of the script, or what ends the connection.
void ScriptCourse::fetch()
{
    dueMs = clock.elapsed() + takePauses();
    const Script::Step *step = cursor.next();
    if (step && step->kind == Script::Step::Send) {
        message = step;
        ++fetched;
        return;
    }
    isEnding = true;
    last = step;
    pauseBeforeMs = takePauses();
    isMore = cursor.peek() != nullptr;
}

qint64 ScriptCourse::takePauses()
{
    qint64 ms = 0;
    while (cursor.peek() && cursor.peek()->kind == Script::Step::Pause)
        ms += cursor.next()->ms;
    return ms;
}

void ScriptCourse::start() {}

quint64 ScriptCourse::due() const
{
    const bool isDue = isEnding || fetched == 0 || clock.elapsed() >= dueMs;
    return isDue ? fetched : fetched - 1;
}

int ScriptCourse::msUntil(quint64) const
{
    return static_cast<int>(std::clamp<qint64>(dueMs - clock.elapsed(), 0, LongestMs));
}

bool ScriptCourse::append(QByteArray &out, quint64 device, quint64 number) const
{
    const QByteArray payload = message->message.payload(
            {device, number, QDateTime::currentMSecsSinceEpoch(), run.options.seed, {}});
    if (message->isFramed)
        return run.options.framing.append(out, payload);
    out += payload;
    return !payload.isEmpty();
}

} // namespace simulator
