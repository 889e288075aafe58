// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "simulator/messagetemplate.h"

#include "simulator/checksums.h"
#include "simulator/randomsource.h"
#include "simulator/templatereader.h"

#include <QtCore/QDateTime>

#include <algorithm>

namespace simulator {
namespace {

constexpr qint64 MsPerSecond = 1000;
constexpr int LetterCount = 26;
constexpr quint64 TemplateStream = 2; // keeps these random numbers apart from cuts and pauses

QByteArray timeText(qint64 ms, const QString &format)
{
    return QDateTime::fromMSecsSinceEpoch(ms).toUTC().toString(format).toUtf8();
}

QByteArray letters(qint64 count)
{
    QByteArray text(static_cast<qsizetype>(count), Qt::Uninitialized);
    for (qsizetype i = 0; i < text.size(); ++i)
        text[i] = static_cast<char>('a' + i % LetterCount);
    return text;
}

} // namespace

std::optional<MessageTemplate> MessageTemplate::read(const QByteArray &text, QString &error)
{
    return TemplateReader(text).read(error);
}

bool MessageTemplate::hasLine() const
{
    return std::any_of(parts.begin(), parts.end(),
                       [](const Part &part) { return part.kind == Part::Line; });
}

bool MessageTemplate::hasPlaceholders() const
{
    return std::any_of(parts.begin(), parts.end(),
                       [](const Part &part) { return part.kind != Part::Text; });
}

QByteArray MessageTemplate::payload(const MessageValues &values) const
{
    std::optional<RandomSource> random;
    QByteArray out;
    qsizetype begin = 0;
    std::optional<qsizetype> end;
    for (const Part &part : parts) {
        switch (part.kind) {
        case Part::Begin:
            begin = out.size();
            end.reset();
            break;
        case Part::End:
            end = out.size();
            break;
        case Part::Sum: {
            const qsizetype behind = end.value_or(out.size());
            part.form.append(
                    out, part.checksum->compute(QByteArrayView(out).sliced(begin, behind - begin)));
            break;
        }
        default:
            append(out, part, values, random);
        }
    }
    return out;
}

void MessageTemplate::append(QByteArray &out, const Part &part, const MessageValues &values,
                             std::optional<RandomSource> &random) const
{
    switch (part.kind) {
    case Part::Text:
        out += part.text;
        break;
    case Part::Line:
        out += values.line;
        break;
    case Part::Device:
        part.form.append(out, static_cast<qint64>(values.device));
        break;
    case Part::Number:
        part.form.append(out, static_cast<qint64>(values.number));
        break;
    case Part::Time:
        out += timeText(values.nowMs, part.timeFormat);
        break;
    case Part::Seconds:
        part.form.append(out, values.nowMs / MsPerSecond);
        break;
    case Part::Milliseconds:
        part.form.append(out, values.nowMs);
        break;
    case Part::Random:
        if (!random)
            random = RandomSource({values.seed, values.device, values.number, TemplateStream});
        part.form.append(
                out, part.least + random->below(static_cast<quint32>(part.most - part.least + 1)));
        break;
    case Part::Letters:
        out += letters(part.least);
        break;
    case Part::Begin:
    case Part::End:
    case Part::Sum:
        break; // these are payload()'s
    }
}

} // namespace simulator
