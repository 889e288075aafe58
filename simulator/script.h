// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include "simulator/messagetemplate.h"

#include <QtCore/QList>

#include <optional>

namespace simulator {

/*!
    What a device does, step by step.

    Thread: any, a value.
*/
struct Script
{
    struct Step
    {
        enum Kind {
            Send,
            Pause,
            Repeat, // the steps up to its RepeatEnd
            RepeatEnd,
            Close,
            Reset,
            HalfClose, // and waits for the peer to close
            WaitClose,
        };

        Kind kind = Send;
        MessageTemplate message = {}; // Send
        bool isFramed = true; // Send
        qint64 ms = -1; // Pause; HalfClose, WaitClose: the longest wait; -1: no limit
        quint64 count = 0; // Repeat; 0: without end
        qsizetype partner = 0; // index of the RepeatEnd of a Repeat, and the other way round

        bool endsConnection() const { return kind >= Close; }
    };

    QList<Step> steps;
};

/*!
    Where a device is in a script.

    Thread: the main thread. Owner: the device's course. The script outlives it.
*/
class ScriptCursor
{
public:
    explicit ScriptCursor(const Script &played) : script(played) {}

    // The next step that is not about repeating. Null: the script is over.
    const Script::Step *next();
    // The same, but it is still the next one afterwards.
    const Script::Step *peek();

private:
    const Script::Step *advance();

    const Script &script;
    qsizetype at = 0;
    QList<quint64> rounds; // how often the repeats around this place have begun
    std::optional<const Script::Step *> peeked;
};

} // namespace simulator
