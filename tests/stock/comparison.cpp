// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "comparison.h"

#include "sides.h"

#include <QtCore/QRegularExpression>

namespace {

// Differences are of the same kind if they differ only in numbers, ports or addresses.
QString kindOf(const QString &difference)
{
    static const QRegularExpression number(QStringLiteral("[0-9][0-9.]*"));
    return QString(difference).replace(number, QStringLiteral("#"));
}

} // namespace

// The sides take turns to play first, because the machine's load changes.
void Comparison::play(const EpisodePlan &plan, int number)
{
    const bool measured = timed && !plan.scripts.first().spaced;
    std::array<EpisodeResult, Lateness::Plays> results;
    for (int i = 0; i < int(Lateness::Plays); ++i) {
        const auto which = static_cast<Lateness::Play>((number + i) % int(Lateness::Plays));
        if (which == Lateness::StockAgain && !measured)
            continue;
        Side &side = which == Lateness::Library ? librarySide() : stockSide();
        results[which] = playEpisode(side, plan);
        if (measured)
            lateness.add(which, plan, results[which].traces);
    }
    if (measured)
        lateness.endEpisode(plan);
    compareSides(plan, number, results[Lateness::Stock], results[Lateness::Library]);
}

void Comparison::compareSides(const EpisodePlan &plan, int number, const EpisodeResult &stockResult,
                              const EpisodeResult &libraryResult)
{
    const QString where = QStringLiteral("episode %1 (%2)").arg(number).arg(plan.toString());
    const QString lines =
            Judge::firstDifference(stockResult.pluginLines, libraryResult.pluginLines);
    if (!lines.isEmpty())
        note(QStringLiteral("the plugin's lines: ") + kindOf(lines),
             where + QStringLiteral(": the plugin's lines: ") + lines);
    if (stockResult.status != libraryResult.status)
        note(QStringLiteral("the status"),
             QStringLiteral("%1: the status\n%2\n  and\n%3")
                     .arg(where, stockResult.status, libraryResult.status));
    for (int i = 0; i < int(plan.scripts.size()); ++i) {
        const Trace &ofStock = stockResult.traces[std::size_t(i)];
        const Trace &ofLibrary = libraryResult.traces[std::size_t(i)];
        const Judge::Verdict stock = count(counts[0], plan, i, ofStock);
        const Judge::Verdict library = count(counts[1], plan, i, ofLibrary);
        if (stock.differences.isEmpty() && library.differences.isEmpty())
            continue;
        QStringList all;
        for (const QString &difference : stock.differences)
            all += QStringLiteral("stock: ") + difference;
        for (const QString &difference : library.differences)
            all += QStringLiteral("library: ") + difference;
        note(kindOf(all.first()),
             QStringLiteral("%1, connection %2: %3\n  repeat it: %4 --episode %5 --connection %2\n"
                            "  script: %6\n  stock:\n%7\n  library:\n%8\n  expected: %9")
                     .arg(where)
                     .arg(i)
                     .arg(all.join(QStringLiteral("; ")), repeatCommand)
                     .arg(number)
                     .arg(plan.scripts.at(i).toString(), Judge::describe(ofStock),
                          Judge::describe(ofLibrary),
                          library.course.isEmpty() ? stock.course : library.course));
    }
}

Judge::Verdict Comparison::count(Counts &to, const EpisodePlan &plan, int connection,
                                 const Trace &trace)
{
    Judge::Verdict verdict = Judge::judge(plan, connection, trace, timed);
    ++to.connections;
    to.offers += trace.offers.size();
    to.decided += verdict.decided;
    to.undecided += plan.scripts.at(connection).spaced && !verdict.decided;
    to.different += !verdict.differences.isEmpty();
    return verdict;
}

void Comparison::note(const QString &kind, const QString &text)
{
    ++kinds[kind];
    found += text;
}

void Comparison::print(std::FILE *to) const
{
    for (std::size_t side = 0; side < counts.size(); ++side) {
        const Counts &each = counts[side];
        std::fprintf(to,
                     "%s: %lld connections, %lld offers; %lld compared item by item, %lld to be "
                     "compared so but decided by the machine; %lld different\n",
                     side == 0 ? "stock  " : "library", static_cast<long long>(each.connections),
                     static_cast<long long>(each.offers), static_cast<long long>(each.decided),
                     static_cast<long long>(each.undecided),
                     static_cast<long long>(each.different));
    }
    for (auto kind = kinds.cbegin(); kind != kinds.cend(); ++kind)
        std::fprintf(to, "%6d times: %s\n", *kind, qPrintable(kind.key()));
    lateness.print(to);
}
