// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "host/outputoptions.h"

namespace host {
namespace {

struct Name
{
    const char *text;
    OutputOptions::Kind kind;
    const char *target; // what may follow, behind a colon; null: nothing
    bool needsTarget;
};
constexpr Name Names[] = {
        {"json", OutputOptions::Json, "FILE", false},
        {"raw", OutputOptions::Raw, "FILE", false},
        {"count", OutputOptions::Count, nullptr, false},
        {"none", OutputOptions::None, nullptr, false},
        {"sqlite", OutputOptions::Sqlite, "FILE", true},
        {"postgresql", OutputOptions::Postgres, "CONNINFO", true},
        {"nats", OutputOptions::Nats, "//HOST/STREAM", true},
};

} // namespace

std::optional<OutputOptions> parseOutput(const QString &text)
{
    const qsizetype colon = text.indexOf(QLatin1Char(':'));
    const QString name = text.left(colon);
    for (const Name &each : Names) {
        if (name != QLatin1String(each.text))
            continue;
        OutputOptions options;
        options.kind = each.kind;
        if (colon < 0 && !each.needsTarget)
            return options;
        options.target = colon < 0 ? QString() : text.mid(colon + 1);
        if (each.target && !options.target.isEmpty())
            return options;
    }
    return {};
}

QStringList knownOutputs()
{
    QStringList known;
    for (const Name &each : Names) {
        const QLatin1String name(each.text);
        if (!each.needsTarget)
            known += name;
        if (each.target)
            known += name + QLatin1Char(':') + QLatin1String(each.target);
    }
    return known;
}

QString nameOf(OutputOptions::Kind kind)
{
    for (const Name &each : Names) {
        if (each.kind == kind)
            return QLatin1String(each.text);
    }
    return {};
}

QString missingFor(OutputOptions::Kind kind)
{
    switch (kind) {
#ifndef HOST_HAS_SQLITE
    case OutputOptions::Sqlite:
        return QStringLiteral("Qt SQL");
#endif
#ifndef HOST_HAS_POSTGRESQL
    case OutputOptions::Postgres:
        return QStringLiteral("libpq");
#endif
#ifndef HOST_HAS_NATS
    case OutputOptions::Nats:
        return QStringLiteral("libnats");
#endif
    default:
        return {};
    }
}

} // namespace host
