// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "simulator/templatereader.h"

#include "simulator/checksums.h"
#include "simulator/escapes.h"

#include <QtCore/QRegularExpression>

namespace simulator {
namespace {

constexpr qint64 WidestRange = 2000000000; // of the numbers that a RandomSource has
constexpr qint64 MostLetters = 64 * 1024 * 1024;
const char Placeholders[] = "{device}, {number}, {line}, {time}, {time-s}, {time-ms}, "
                            "{random:MIN..MAX}, {letters:N}, {begin}, {end}";

} // namespace

std::optional<MessageTemplate> TemplateReader::read(QString &error)
{
    while (at < text.size() && firstError.isEmpty()) {
        if (text.at(at) == '\\')
            takeEscape();
        else if (atPlaceholder())
            takePlaceholder();
        else
            literal += text.at(at++);
    }
    if (!literal.isEmpty())
        result.parts.append({Part::Text, literal});
    error = firstError;
    return error.isEmpty() ? std::optional(result) : std::nullopt;
}

// Any other brace stands for itself, as in JSON.
bool TemplateReader::atPlaceholder() const
{
    return text.at(at) == '{' && at + 1 < text.size() && text.at(at + 1) >= 'a'
            && text.at(at + 1) <= 'z';
}

void TemplateReader::takeEscape()
{
    const QByteArrayView rest = QByteArrayView(text).sliced(at);
    const auto escape = escapeAt(rest);
    if (!escape) {
        firstError = escapeError(rest);
        return;
    }
    literal += escape->byte;
    at += escape->size;
}

void TemplateReader::takePlaceholder()
{
    const qsizetype end = text.indexOf('}', at);
    if (end < 0) {
        fail(QStringLiteral("no } behind %1; a brace of your own before a letter is \\{")
                     .arg(QString::fromUtf8(text.sliced(at))));
        return;
    }
    const QByteArray inside = text.sliced(at + 1, end - at - 1);
    const qsizetype colon = inside.indexOf(':');
    const auto part = partOf(colon < 0 ? inside : inside.first(colon),
                             colon < 0 ? QString() : QString::fromUtf8(inside.sliced(colon + 1)));
    if (!part) {
        firstError = QStringLiteral("{%1}: %2").arg(QString::fromUtf8(inside), firstError);
        return;
    }
    if (!literal.isEmpty())
        result.parts.append({Part::Text, literal});
    literal.clear();
    result.parts.append(*part);
    at = end + 1;
}

std::optional<MessageTemplate::Part> TemplateReader::partOf(const QByteArray &name,
                                                            const QString &argument)
{
    if (name == "device")
        return numberPart(Part::Device, argument);
    if (name == "number")
        return numberPart(Part::Number, argument);
    if (name == "time-s")
        return numberPart(Part::Seconds, argument);
    if (name == "time-ms")
        return numberPart(Part::Milliseconds, argument);
    if (name == "random")
        return randomPart(argument);
    if (name == "letters")
        return lettersPart(argument);
    if (name == "line")
        return barePart(Part::Line, argument);
    if (name == "begin")
        return barePart(Part::Begin, argument);
    if (name == "end")
        return barePart(Part::End, argument);
    if (const Checksum *checksum = findChecksum(name))
        return sumPart(*checksum, argument);
    if (name == "time") {
        Part part{Part::Time};
        part.timeFormat =
                argument.isEmpty() ? QStringLiteral("yyyy-MM-dd'T'HH:mm:ss.zzz'Z'") : argument;
        return part;
    }
    return fail(QStringLiteral("unknown placeholder; there are %1, and the check sums %2")
                        .arg(QLatin1String(Placeholders), checksumNames()));
}

std::optional<MessageTemplate::Part> TemplateReader::numberPart(Part::Kind kind,
                                                                const QString &argument)
{
    Part part{kind};
    if (argument.isEmpty())
        return part;
    const auto form = NumberForm::read(argument);
    if (!form)
        return fail(
                QStringLiteral("unknown form of a number; there are dec, hex, HEX, also with a "
                               "count of digits, u8, u16be, u16le, u32be, u32le, u64be, u64le"));
    part.form = *form;
    return part;
}

std::optional<MessageTemplate::Part> TemplateReader::sumPart(const Checksum &checksum,
                                                             const QString &argument)
{
    auto part = numberPart(Part::Sum, argument);
    if (!part)
        return part;
    part->checksum = &checksum;
    if (argument.isEmpty())
        part->form = NumberForm::hexOf(checksum.bytes);
    return part;
}

std::optional<MessageTemplate::Part> TemplateReader::randomPart(const QString &argument)
{
    static const QRegularExpression pattern(
            QStringLiteral("^(-?[0-9]+)\\.\\.(-?[0-9]+)(?::(.*))?$"));
    const QRegularExpressionMatch match = pattern.match(argument);
    bool okLeast = false;
    bool okMost = false;
    const qlonglong least = match.captured(1).toLongLong(&okLeast);
    const qlonglong most = match.captured(2).toLongLong(&okMost);
    constexpr qlonglong Limit = 1LL << 53U; // beyond, the difference could overflow
    const bool isInLimits = okLeast && okMost && least >= -Limit && most <= Limit;
    if (!isInLimits || least > most || most - least >= WidestRange)
        return fail(QStringLiteral("takes MIN..MAX, at most %1 numbers, and then the form behind a "
                                   "colon, for example {random:-50..50:dec2}")
                            .arg(WidestRange));
    auto part = numberPart(Part::Random, match.captured(3));
    if (part) {
        part->least = least;
        part->most = most;
    }
    return part;
}

std::optional<MessageTemplate::Part> TemplateReader::lettersPart(const QString &argument)
{
    bool ok = false;
    const qlonglong count = argument.toLongLong(&ok);
    if (!ok || count < 0 || count > MostLetters)
        return fail(QStringLiteral("takes how many, up to %1").arg(MostLetters));
    Part part{Part::Letters};
    part.least = count;
    return part;
}

std::optional<MessageTemplate::Part> TemplateReader::barePart(Part::Kind kind,
                                                              const QString &argument)
{
    if (!argument.isEmpty())
        return fail(QStringLiteral("takes nothing behind a colon"));
    return Part{kind};
}

std::optional<MessageTemplate::Part> TemplateReader::fail(const QString &what)
{
    firstError = what;
    return std::nullopt;
}

} // namespace simulator
