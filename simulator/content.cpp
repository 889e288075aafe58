// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "simulator/content.h"

#include "simulator/scriptreader.h"

#include <QtCore/QFile>

#include <unistd.h>

namespace simulator {

Content::Content(Options &given) : options(given), numbered(given), recorded(given) {}

bool Content::load()
{
    if (!options.replayFile.isEmpty())
        return loadReplay();
    if (!options.scriptFile.isEmpty())
        return loadScript();
    const LineSource *source = nullptr;
    if (options.readsInput() && InputLines::isStream(STDIN_FILENO)) {
        inputLines = std::make_unique<InputLines>(STDIN_FILENO, options);
        source = inputLines.get();
    } else if (!options.messagesFrom.isEmpty()) {
        if (!loadLines())
            return false;
        source = &lines;
    }
    if (source || options.messageTemplate)
        composed = std::make_unique<ComposedMessages>(options, source);
    return true;
}

bool Content::loadReplay()
{
    if (!recorded.load())
        return fail(recorded.errorString());
    options.connections = recorded.deviceCount();
    return true;
}

bool Content::loadLines()
{
    const QString name =
            options.readsInput() ? QStringLiteral("standard input") : options.messagesFrom;
    QFile file(options.messagesFrom);
    const bool isOpen = options.readsInput() ? file.open(STDIN_FILENO, QIODevice::ReadOnly)
                                             : file.open(QIODevice::ReadOnly);
    if (!isOpen)
        return fail(QStringLiteral("%1: %2").arg(name, file.errorString()));
    // What a template makes of a line is known only when it is sent.
    const Framing *framing = options.messageTemplate ? nullptr : &options.framing;
    if (!lines.load(file, name, options.messagesAs, framing))
        return fail(lines.errorString());
    if (!options.countsMessages)
        options.messages = lines.count();
    if (options.reconnect > 0 && options.reconnect >= options.messages)
        return fail(QStringLiteral("--reconnect needs more messages than reconnections"));
    return true;
}

bool Content::loadScript()
{
    QFile file(options.scriptFile);
    if (!file.open(QIODevice::ReadOnly))
        return fail(QStringLiteral("%1: %2").arg(options.scriptFile, file.errorString()));
    ScriptReader reader(options.framing);
    steps = reader.read(file, options.scriptFile);
    return steps.has_value() || fail(reader.errorString());
}

QString Content::warning() const
{
    const QString text = recorded.warning();
    return text.isEmpty() ? text : QStringLiteral("%1: %2").arg(options.replayFile, text);
}

const MessageSource &Content::messages() const
{
    if (!options.replayFile.isEmpty())
        return recorded;
    return composed ? static_cast<const MessageSource &>(*composed) : numbered;
}

const Replay *Content::replay() const
{
    return options.replayFile.isEmpty() ? nullptr : &recorded;
}

InputLines *Content::input() const
{
    return inputLines.get();
}

const Script *Content::script() const
{
    return steps ? &*steps : nullptr;
}

bool Content::fail(const QString &text)
{
    error = text;
    return false;
}

} // namespace simulator
