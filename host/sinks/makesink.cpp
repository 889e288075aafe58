// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "host/sinks/makesink.h"

#include "host/sinks/countingsink.h"
#include "host/sinks/streamsink.h"

#include <QtCore/QRandomGenerator>

#include <array>

#include <unistd.h>

namespace host {
namespace {

struct Name
{
    const char *text;
    OutputOptions::Kind kind;
    bool hasTarget; // may be followed by a colon and a target
};
constexpr Name Names[] = {
        {"json", OutputOptions::Json, true},
        {"raw", OutputOptions::Raw, true},
        {"count", OutputOptions::Count, false},
        {"none", OutputOptions::None, false},
};

std::unique_ptr<Sink> makeStream(StreamFormat format, const QString &file)
{
    if (file.isEmpty())
        return std::make_unique<StreamSink>(format, STDOUT_FILENO);
    return std::make_unique<StreamSink>(format, file);
}

} // namespace

std::optional<OutputOptions> parseOutput(const QString &text)
{
    const qsizetype colon = text.indexOf(QLatin1Char(':'));
    const QString name = text.left(colon);
    for (const Name &each : Names) {
        if (name != QLatin1String(each.text))
            continue;
        if (colon < 0)
            return OutputOptions{each.kind, {}};
        if (each.hasTarget && colon + 1 < text.size())
            return OutputOptions{each.kind, text.mid(colon + 1)};
    }
    return {};
}

QStringList knownOutputs()
{
    QStringList known;
    for (const Name &each : Names) {
        known += QLatin1String(each.text);
        if (each.hasTarget)
            known += QLatin1String(each.text) + QLatin1String(":FILE");
    }
    return known;
}

std::unique_ptr<Sink> makeSink(const OutputOptions &options, Framing framing, const QString &epoch)
{
    Q_UNUSED(epoch)
    switch (options.kind) {
    case OutputOptions::Json:
        return makeStream({StreamFormat::Json, framing}, options.target);
    case OutputOptions::Raw:
        return makeStream({StreamFormat::Raw, framing}, options.target);
    case OutputOptions::Count:
        return std::make_unique<CountingSink>(STDOUT_FILENO);
    case OutputOptions::None:
        break;
    }
    return std::make_unique<CountingSink>(-1);
}

QString newEpoch()
{
    std::array<quint32, 4> numbers = {};
    QRandomGenerator::system()->generate(numbers.begin(), numbers.end());
    QString epoch;
    for (const quint32 number : numbers)
        epoch += QStringLiteral("%1").arg(number, 8, 16, QLatin1Char('0'));
    return epoch;
}

} // namespace host
