// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "simulator/scriptreader.h"

#include <QtCore/QIODevice>
#include <QtCore/QRegularExpression>

#include <algorithm>

namespace simulator {
namespace {

constexpr double LongestMs = 24 * 3600 * 1e3;
constexpr QByteArrayView ByteOrderMark("\xef\xbb\xbf"); // some editors begin a file with it

//! A line of a script. The rest is behind one blank or tab, up to the end of the line.
struct Words
{
    QByteArray step;
    QByteArray rest;
};

bool isBlank(char byte)
{
    return byte == ' ' || byte == '\t';
}

Words split(const QByteArray &line)
{
    const char *end = line.endsWith('\r') ? line.end() - 1 : line.end();
    const char *begin = std::find_if_not(line.begin(), end, isBlank);
    const char *blank = std::find_if(begin, end, isBlank);
    const char *rest = blank == end ? end : blank + 1;
    return {QByteArray(begin, blank - begin), QByteArray(rest, end - rest)};
}

// Nothing if it is no time.
std::optional<qint64> msOf(const QString &time)
{
    static const QRegularExpression pattern(QStringLiteral("^([0-9]+(?:\\.[0-9]+)?)(ms|s|min|h)$"));
    const QRegularExpressionMatch match = pattern.match(time);
    if (!match.hasMatch())
        return std::nullopt;
    const QString unit = match.captured(2);
    const double factor = unit == QLatin1String("ms") ? 1
            : unit == QLatin1String("s")              ? 1e3
            : unit == QLatin1String("min")            ? 60e3
                                                      : 3600e3;
    const double ms = match.captured(1).toDouble() * factor;
    return ms <= LongestMs ? std::optional(static_cast<qint64>(ms)) : std::nullopt;
}

} // namespace

std::optional<Script> ScriptReader::read(QIODevice &file, const QString &name)
{
    QByteArray content = file.readAll();
    if (content.startsWith(ByteOrderMark))
        content.remove(0, ByteOrderMark.size());
    const QByteArrayList lines = content.split('\n');
    for (const QByteArray &text : lines) {
        ++line;
        if (!take(text)) {
            error = QStringLiteral("%1, line %2: %3").arg(name).arg(line).arg(error);
            return std::nullopt;
        }
    }
    if (!open.isEmpty())
        error = QStringLiteral("%1, line %2: repeat without its end")
                        .arg(name)
                        .arg(openLines.last());
    else if (script.steps.isEmpty())
        error = QStringLiteral("%1: there is no step in it").arg(name);
    return error.isEmpty() ? std::optional(script) : std::nullopt;
}

bool ScriptReader::take(const QByteArray &text)
{
    const Words words = split(text);
    if (words.step.isEmpty() || words.step.startsWith('#'))
        return true;
    if (words.step == "send")
        return takeSend(words.rest, true);
    if (words.step == "send-raw")
        return takeSend(words.rest, false);
    const QString word = QString::fromUtf8(words.step);
    const QString rest = QString::fromUtf8(words.rest);
    if (word == QLatin1String("pause"))
        return takePause(rest.trimmed());
    if (word == QLatin1String("repeat"))
        return takeRepeat(rest.trimmed());
    if (word == QLatin1String("end"))
        return takeEnd(rest.trimmed());
    if (word == QLatin1String("close"))
        return takeClosing(Script::Step::Close, rest.trimmed());
    if (word == QLatin1String("reset"))
        return takeClosing(Script::Step::Reset, rest.trimmed());
    if (word == QLatin1String("half-close"))
        return takeClosing(Script::Step::HalfClose, rest.trimmed());
    if (word == QLatin1String("wait-close"))
        return takeWaiting(Script::Step::WaitClose, rest.trimmed());
    return fail(QStringLiteral("unknown step: %1; there are send, send-raw, pause, repeat, end, "
                               "close, reset, half-close, wait-close")
                        .arg(word));
}

bool ScriptReader::takeSend(const QByteArray &text, bool isFramed)
{
    Script::Step step;
    step.isFramed = isFramed;
    const auto message = MessageTemplate::read(text, error);
    if (!message)
        return false;
    if (message->hasLine())
        return fail(QStringLiteral("{line} has no meaning in a script"));
    const qsizetype size = message->payload({}).size();
    if (isFramed && !message->hasPlaceholders() && !framing.fits(size))
        return fail(QStringLiteral("%1 bytes do not fit the framing").arg(size));
    if (!isFramed && text.isEmpty())
        return fail(QStringLiteral("send-raw wants bytes to send"));
    step.message = *message;
    script.steps.append(step);
    return true;
}

bool ScriptReader::takePause(const QString &time)
{
    const auto ms = msOf(time);
    if (!ms)
        return fail(QStringLiteral("pause wants a time up to a day, as 200ms, 1.5s, 2min or 1h"));
    Script::Step step;
    step.kind = Script::Step::Pause;
    step.ms = *ms;
    script.steps.append(step);
    return true;
}

bool ScriptReader::takeRepeat(const QString &count)
{
    Script::Step step;
    step.kind = Script::Step::Repeat;
    bool ok = count.isEmpty();
    if (!ok) {
        step.count = count.toULongLong(&ok);
        ok = ok && step.count > 0;
    }
    if (!ok)
        return fail(QStringLiteral("repeat wants a number from 1, or nothing for ever"));
    open.append(script.steps.size());
    openLines.append(line);
    script.steps.append(step);
    return true;
}

bool ScriptReader::takeEnd(const QString &rest)
{
    if (!rest.isEmpty() || open.isEmpty())
        return fail(rest.isEmpty() ? QStringLiteral("end without repeat")
                                   : QStringLiteral("nothing may be behind end"));
    const qsizetype begin = open.takeLast();
    openLines.removeLast();
    // A repeat without such a step would go round without ever coming to one.
    const bool hasContent = std::any_of(
            script.steps.begin() + begin, script.steps.end(), [](const Script::Step &step) {
                return step.kind == Script::Step::Send || step.endsConnection();
            });
    if (!hasContent)
        return fail(QStringLiteral("this repeat sends nothing and ends no connection"));
    Script::Step step;
    step.kind = Script::Step::RepeatEnd;
    step.partner = begin;
    script.steps[begin].partner = script.steps.size();
    script.steps.append(step);
    return true;
}

bool ScriptReader::takeClosing(Script::Step::Kind kind, const QString &rest)
{
    if (!rest.isEmpty())
        return fail(QStringLiteral("nothing may be behind this step"));
    if (isBehindHalfClose())
        return fail(QStringLiteral("half-close has ended the connection; wait-close TIME behind it "
                                   "says how long to wait for the peer"));
    Script::Step step;
    step.kind = kind;
    script.steps.append(step);
    return true;
}

bool ScriptReader::takeWaiting(Script::Step::Kind kind, const QString &time)
{
    const auto ms = msOf(time);
    if (!time.isEmpty() && !ms)
        return fail(QStringLiteral("wait-close wants nothing, or a time up to a day, as 10s"));
    // A half-close waits by itself.
    if (isBehindHalfClose()) {
        script.steps.last().ms = ms.value_or(-1);
        return true;
    }
    Script::Step step;
    step.kind = kind;
    step.ms = ms.value_or(-1);
    script.steps.append(step);
    return true;
}

bool ScriptReader::isBehindHalfClose() const
{
    return !script.steps.isEmpty() && script.steps.last().kind == Script::Step::HalfClose;
}

bool ScriptReader::fail(const QString &text)
{
    error = text;
    return false;
}

} // namespace simulator
