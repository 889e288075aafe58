// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "host/sinks/makesink.h"

#include "host/sinks/countingsink.h"
#include "host/sinks/streamsink.h"
#ifdef INPUTHOST_HAS_NATS
#include "host/sinks/nats/natsstore.h"
#include "host/sinks/storesink.h"
#endif

#include <QtCore/QRandomGenerator>

#include <array>

#include <unistd.h>

namespace host {
namespace {

struct Name
{
    const char *text;
    OutputOptions::Kind kind;
    const char *target; // may stand behind it; null: nothing
    bool needsTarget = false;
};
constexpr Name Names[] = {
        {"json", OutputOptions::Json, ":FILE"},
        {"raw", OutputOptions::Raw, ":FILE"},
        {"count", OutputOptions::Count, nullptr},
        {"none", OutputOptions::None, nullptr},
        {"nats", OutputOptions::Nats, "://HOST/STREAM", true},
};

std::unique_ptr<Sink> makeStream(StreamFormat format, const QString &file)
{
    if (file.isEmpty())
        return std::make_unique<StreamSink>(format, STDOUT_FILENO);
    return std::make_unique<StreamSink>(format, file);
}

#ifdef INPUTHOST_HAS_NATS
std::unique_ptr<Sink> makeNats(NatsSettings settings, const QString &epoch)
{
    settings.epoch = epoch.toLatin1();
    return std::make_unique<StoreSink>(std::make_unique<NatsStore>(settings));
}
#else
std::unique_ptr<Sink> makeNats(const NatsSettings &, const QString &)
{
    return nullptr; // canUseNats()
}
#endif

} // namespace

std::optional<OutputOptions> parseOutput(const QString &text)
{
    const qsizetype colon = text.indexOf(QLatin1Char(':'));
    const QString name = text.left(colon);
    for (const Name &each : Names) {
        if (name != QLatin1String(each.text))
            continue;
        if (colon < 0 && !each.needsTarget)
            return OutputOptions{each.kind, {}, {}};
        if (colon >= 0 && each.target && colon + 1 < text.size())
            return OutputOptions{each.kind, text.mid(colon + 1), {}};
    }
    return {};
}

QStringList knownOutputs()
{
    QStringList known;
    for (const Name &each : Names) {
        if (!each.needsTarget)
            known += QLatin1String(each.text);
        if (each.target)
            known += QLatin1String(each.text) + QLatin1String(each.target);
    }
    return known;
}

bool canUseNats()
{
#ifdef INPUTHOST_HAS_NATS
    return true;
#else
    return false;
#endif
}

std::unique_ptr<Sink> makeSink(const OutputOptions &options, Framing framing, const QString &epoch)
{
    switch (options.kind) {
    case OutputOptions::Json:
        return makeStream({StreamFormat::Json, framing}, options.target);
    case OutputOptions::Raw:
        return makeStream({StreamFormat::Raw, framing}, options.target);
    case OutputOptions::Count:
        return std::make_unique<CountingSink>(STDOUT_FILENO);
    case OutputOptions::Nats:
        return makeNats(options.nats, epoch);
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
