// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "lateness.h"

#include <algorithm>
#include <cmath>

namespace {

constexpr double Deviations = 4; // a difference above this many deviations is no noise
constexpr double LeastShare = 0.002; // a smaller difference does not matter
constexpr double LeastSquares = 4; // at least the noise of a few bytes in one connection
constexpr qsizetype LargeBytes = 100000;
constexpr double Never = -1;

double percentile(const std::vector<double> &sorted, double share)
{
    if (sorted.empty())
        return 0;
    return sorted[static_cast<std::size_t>(share * static_cast<double>(sorted.size() - 1))];
}

} // namespace

double Lateness::Group::more(std::size_t limit) const
{
    const double stock = (late[Stock][limit] + late[StockAgain][limit]) / 2;
    return (late[Library][limit] - stock) / count();
}

// The deviation of one play from the mean of two plays is that of the difference between two plays,
// times the root of three quarters.
double Lateness::Group::noise(std::size_t limit) const
{
    const double squares = std::max(ofConnections[limit], ofEpisodes[limit]) + LeastSquares;
    return Deviations * std::sqrt(0.75 * squares) / count();
}

QString Lateness::nameOf(const EpisodePlan &plan, const Message &message)
{
    const qint64 ms = message.pauseUs / 1000;
    const char *pause = ms < 1 ? "20 us" : ms < 100 ? "1 ms" : ms < 1000 ? "200 ms" : "2 s";
    return QStringLiteral("%1, %2, after %3")
            .arg(QLatin1String(plan.tlsVersion == 0 ? "TCP" : "TLS"),
                 QLatin1String(message.bytes > LargeBytes ? "large" : "small"),
                 QLatin1String(pause));
}

void Lateness::add(Play play, const EpisodePlan &plan, const std::vector<Trace> &traces)
{
    for (std::size_t i = 0; i < traces.size(); ++i) {
        offersInHand[play].push_back(static_cast<double>(traces[i].offers.size()));
        offers[play] += offersInHand[play].back();
        inHand[play].push_back(latenessOf(plan.scripts.at(qsizetype(i)), traces[i]));
    }
}

std::vector<double> Lateness::latenessOf(const Script &script, const Trace &trace)
{
    std::vector<double> result;
    qsizetype begin = 0;
    auto offer = trace.offers.cbegin();
    for (qsizetype i = 0; i < script.messages.size(); ++i) {
        const qsizetype end = begin + script.messages.at(i).bytes;
        for (const qsizetype position : {begin, end - 1}) {
            while (offer != trace.offers.cend() && offer->begin + offer->length <= position)
                ++offer;
            // A host that discards more than it was offered cuts bytes that it has never seen.
            if (offer == trace.offers.cend() || position < offer->begin
                || i >= trace.messages.size())
                result.push_back(Never);
            else
                result.push_back(
                        std::chrono::duration<double, std::milli>(offer->at - trace.messages.at(i))
                                .count());
        }
        begin = end;
    }
    return result;
}

void Lateness::endEpisode(const EpisodePlan &plan)
{
    QMap<QString, ByLimit<double>> ofEpisode;
    for (std::size_t c = 0; c < inHand[Stock].size(); ++c) {
        QMap<QString, ByLimit<double>> ofConnection;
        for (std::size_t i = 0; i < inHand[Stock][c].size(); ++i) {
            const std::array<double, Plays> ms{inHand[Stock][c][i], inHand[StockAgain][c][i],
                                               inHand[Library][c][i]};
            if (*std::min_element(ms.begin(), ms.end()) < 0)
                continue;
            const auto &messages = plan.scripts.at(qsizetype(c)).messages;
            const QString name = nameOf(plan, messages.at(qsizetype(i / 2)));
            Group &group = groups[name];
            ByLimit<double> &difference = ofConnection[name];
            for (std::size_t play = 0; play < Plays; ++play)
                group.ms[play].push_back(ms[play]);
            for (std::size_t limit = 0; limit < LimitsMs.size(); ++limit) {
                for (std::size_t play = 0; play < Plays; ++play)
                    group.late[play][limit] += ms[play] > LimitsMs[limit];
                difference[limit] +=
                        (ms[Stock] > LimitsMs[limit]) - (ms[StockAgain] > LimitsMs[limit]);
            }
        }
        for (auto entry = ofConnection.cbegin(); entry != ofConnection.cend(); ++entry) {
            for (std::size_t limit = 0; limit < LimitsMs.size(); ++limit) {
                const double difference = (*entry)[limit];
                groups[entry.key()].ofConnections[limit] += difference * difference;
                ofEpisode[entry.key()][limit] += difference;
            }
        }
    }
    for (auto entry = ofEpisode.cbegin(); entry != ofEpisode.cend(); ++entry) {
        for (std::size_t limit = 0; limit < LimitsMs.size(); ++limit)
            groups[entry.key()].ofEpisodes[limit] += (*entry)[limit] * (*entry)[limit];
    }
    double difference = 0;
    for (std::size_t c = 0; c < offersInHand[Stock].size(); ++c) {
        const double own = offersInHand[Stock][c] - offersInHand[StockAgain][c];
        offersOfConnections += own * own;
        difference += own;
    }
    offersOfEpisodes += difference * difference;
    inHand = {};
    offersInHand = {};
}

QStringList Lateness::findings() const
{
    QStringList result;
    for (auto group = groups.cbegin(); group != groups.cend(); ++group) {
        for (std::size_t i = 0; i < LimitsMs.size(); ++i) {
            if (group->more(i) > std::max(group->noise(i), LeastShare))
                result += QStringLiteral("%1: %2 % more are later than %3 ms, the noise is %4 %")
                                  .arg(group.key())
                                  .arg(100 * group->more(i), 0, 'f', 2)
                                  .arg(LimitsMs[i])
                                  .arg(100 * group->noise(i), 0, 'f', 2);
        }
    }
    const double more = offers[Library] - (offers[Stock] + offers[StockAgain]) / 2;
    const double squares = std::max(offersOfConnections, offersOfEpisodes) + LeastSquares;
    const double noise = Deviations * std::sqrt(0.75 * squares);
    if (std::abs(more) > std::max(noise, LeastShare * offers[Library]))
        result += QStringLiteral("%1 more offers, the noise is %2").arg(more).arg(noise, 0, 'f', 0);
    return result;
}

void Lateness::print(std::FILE *to) const
{
    constexpr std::array<const char *, Plays> Names{"stock", "stock again", "library"};
    std::fprintf(to, "Offers: stock %.0f, stock again %.0f, library %.0f\n", offers[Stock],
                 offers[StockAgain], offers[Library]);
    std::fprintf(to, "%-24s %-11s %6s %7s %7s %7s %7s ms", "Lateness of bytes", "", "count", "50 %",
                 "90 %", "99 %", "99.9 %");
    for (const double limit : LimitsMs)
        std::fprintf(to, " >%4.0f ms", limit);
    for (auto group = groups.cbegin(); group != groups.cend(); ++group) {
        for (std::size_t play = 0; play < Plays; ++play) {
            std::vector<double> sorted = group->ms[play];
            std::sort(sorted.begin(), sorted.end());
            std::fprintf(to, "\n%-24s %-11s %6zu %7.1f %7.1f %7.1f %7.1f   ",
                         play == 0 ? qPrintable(group.key()) : "", Names[play], sorted.size(),
                         percentile(sorted, 0.5), percentile(sorted, 0.9), percentile(sorted, 0.99),
                         percentile(sorted, 0.999));
            for (const double late : group->late[play])
                std::fprintf(to, " %6.2f %%", 100 * late / group->count());
        }
    }
    std::fprintf(to, "\n");
}
