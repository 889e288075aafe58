// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include "simulator/composedmessages.h"
#include "simulator/filelines.h"
#include "simulator/inputlines.h"
#include "simulator/messageformat.h"
#include "simulator/replay.h"
#include "simulator/script.h"

#include <memory>
#include <optional>

namespace simulator {

/*!
    What the devices of a run say, as the options ask for: numbered messages, those of a
    file, of standard input or of a template, a script, or a recording.

    Thread: the main thread.
*/
class Content
{
public:
    // given: what only the content tells is put into them by load().
    explicit Content(Options &given);

    // Reads the files. False if one cannot be used: see errorString().
    bool load();
    QString errorString() const { return error; }
    // What is not as it should be, although the files can be used. Empty: nothing.
    QString warning() const;

    const MessageSource &messages() const;
    const Replay *replay() const; // null: there is none
    const Script *script() const; // null: there is none
    InputLines *input() const; // null: standard input is not read, or was read as a whole

private:
    bool loadReplay();
    bool loadLines();
    bool loadScript();
    bool fail(const QString &text);

    Options &options;
    const MessageFormat numbered;
    Replay recorded;
    FileLines lines;
    std::unique_ptr<InputLines> inputLines;
    std::optional<Script> steps;
    std::unique_ptr<ComposedMessages> composed;
    QString error;
};

} // namespace simulator
