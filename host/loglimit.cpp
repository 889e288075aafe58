// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "host/loglimit.h"

#include <algorithm>
#include <chrono>
#include <utility>

namespace host {
namespace {

constexpr std::chrono::minutes Interval(1);
// More than the programs have. What devices write may make others; these count together.
constexpr qsizetype MostKinds = 500;
// What tells kinds apart, and what is shown of a line as its kind's example.
constexpr qsizetype KindSize = 60;
constexpr qsizetype ExampleSize = 100;

QString kindOf(const QString &line)
{
    QString kind;
    for (const QChar character : line) {
        if (!character.isDigit())
            kind += character;
        if (kind.size() == KindSize)
            break;
    }
    return kind;
}

} // namespace

bool LogLimit::allows(const QString &line)
{
    QString name = kindOf(line);
    if (kinds.size() >= MostKinds && !kinds.contains(name))
        name.clear();
    Kind &kind = kinds[name];
    if (kind.example.isEmpty())
        kind.example = line.first(std::min(ExampleSize, line.size()));
    if (kind.lines >= MostOfAKind) {
        ++kind.missed;
        return false;
    }
    if (lines >= MostLinesAMinute) {
        ++missed;
        return false;
    }
    ++kind.lines;
    ++lines;
    return true;
}

QStringList LogLimit::takeMissed(bool atOnce)
{
    if (!atOnce && !since.hasExpired(std::chrono::milliseconds(Interval).count()))
        return {};
    QStringList texts;
    for (const Kind &kind : std::as_const(kinds)) {
        if (kind.missed > 0)
            texts += QStringLiteral("%1 more lines like this one within a minute, not shown: %2")
                             .arg(kind.missed)
                             .arg(kind.example);
    }
    if (missed > 0)
        texts += QStringLiteral("%1 more lines of this level within a minute, not shown")
                         .arg(missed);
    since.restart();
    kinds.clear();
    lines = 0;
    missed = 0;
    return texts;
}

} // namespace host
