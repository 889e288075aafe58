// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "simulator/content.h"

#include "simulator/scriptreader.h"

#include <QtCore/QFile>

namespace simulator {

Content::Content(Options &given)
    : options(given),
      numbered(given),
      recorded(given),
      composed(given, given.messagesFrom.isEmpty() ? nullptr : &lines)
{}

bool Content::load()
{
    if (!options.replayFile.isEmpty())
        return loadReplay();
    if (!options.scriptFile.isEmpty())
        return loadScript();
    return options.messagesFrom.isEmpty() || loadLines();
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
    QFile file(options.messagesFrom);
    if (!file.open(QIODevice::ReadOnly))
        return fail(QStringLiteral("%1: %2").arg(options.messagesFrom, file.errorString()));
    // What a template makes of a line is known only when it is sent.
    const Framing *framing = options.messageTemplate ? nullptr : &options.framing;
    if (!lines.load(file, options.messagesFrom, options.messagesAs, framing))
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
    ScriptReader reader;
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
    if (!options.messagesFrom.isEmpty() || options.messageTemplate)
        return composed;
    return numbered;
}

const Replay *Content::replay() const
{
    return options.replayFile.isEmpty() ? nullptr : &recorded;
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
