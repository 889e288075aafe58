// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "simulator/script.h"

#include <utility>

namespace simulator {

const Script::Step *ScriptCursor::next()
{
    const Script::Step *step = peek();
    peeked.reset();
    return step;
}

const Script::Step *ScriptCursor::peek()
{
    if (!peeked)
        peeked = advance();
    return *peeked;
}

const Script::Step *ScriptCursor::advance()
{
    while (at < script.steps.size()) {
        const Script::Step &step = script.steps.at(at++);
        if (step.kind == Script::Step::Repeat) {
            rounds.append(1);
        } else if (step.kind == Script::Step::RepeatEnd) {
            const quint64 count = script.steps.at(step.partner).count;
            if (count != 0 && rounds.last() == count) {
                rounds.removeLast();
                continue;
            }
            ++rounds.last();
            at = step.partner + 1;
        } else {
            return &step;
        }
    }
    return nullptr;
}

} // namespace simulator
