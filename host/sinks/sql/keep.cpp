// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "host/sinks/sql/keep.h"

#include <QtCore/QRegularExpression>
#include <QtCore/QStringList>

#include <algorithm>
#include <array>

namespace host {
namespace {

struct Unit
{
    QLatin1String name;
    qint64 seconds; // 0: it is one of sizes
    qint64 bytes;
};

constexpr std::array<Unit, 6> Units{{
        {QLatin1String("s"), 1, 0},
        {QLatin1String("min"), 60, 0},
        {QLatin1String("h"), 60 * 60, 0},
        {QLatin1String("d"), 24 * 60 * 60, 0},
        {QLatin1String("MB"), 0, 1000 * 1000},
        {QLatin1String("GB"), 0, 1000 * 1000 * 1000},
}};

// False: it is no amount, or there is one of its kind already.
bool addAmount(const QString &text, Keep &keep)
{
    // Seven digits: the largest product fits in 64 bits.
    static const QRegularExpression pattern(QStringLiteral("\\A([1-9][0-9]{0,6})([A-Za-z]+)\\z"));
    const QRegularExpressionMatch match = pattern.match(text);
    const auto *const unit = std::find_if(Units.begin(), Units.end(), [&match](const Unit &each) {
        return match.capturedView(2) == each.name;
    });
    if (unit == Units.end())
        return false;
    if (unit->seconds > 0 ? keep.age.count() > 0 : keep.bytes > 0)
        return false;
    const qint64 number = match.capturedView(1).toLongLong();
    keep.age += std::chrono::seconds(number * unit->seconds);
    keep.bytes += number * unit->bytes;
    return true;
}

} // namespace

std::optional<Keep> parseKeep(const QString &text)
{
    Keep keep;
    const QStringList amounts = text.split(QLatin1Char(','));
    for (const QString &amount : amounts) {
        if (!addAmount(amount, keep))
            return {};
    }
    return keep;
}

} // namespace host
