// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "lateness.h"

#include <algorithm>
#include <cmath>
#include <numeric>

namespace {

constexpr double LeastPerEpisode = 20; // of a group, for its share to count
constexpr double Deviations = 4; // of the mean, for it to be more than noise
constexpr double AlikeInAConnection = 4; // bytes are not late each for itself
constexpr double LeastShare = 0.002; // nobody would feel less
constexpr qsizetype LargeBytes = 100000;

double meanOf(const std::vector<double> &values)
{
    return std::accumulate(values.begin(), values.end(), 0.0) / static_cast<double>(values.size());
}

// Of values whose mean would be none but for the noise.
double errorOfMean(const std::vector<double> &values)
{
    const double squares = std::inner_product(values.begin(), values.end(), values.begin(), 0.0);
    return std::sqrt(squares) / static_cast<double>(values.size());
}

double percentile(const std::vector<double> &sorted, double share)
{
    if (sorted.empty())
        return 0;
    return sorted[static_cast<std::size_t>(share * static_cast<double>(sorted.size() - 1))];
}

} // namespace

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
        const Trace &trace = traces[i];
        const Script &script = plan.scripts.at(static_cast<qsizetype>(i));
        offers[play] += trace.offers.size();
        qsizetype end = 0;
        auto offer = trace.offers.cbegin();
        for (qsizetype m = 0; m < trace.messages.size(); ++m) {
            const Message &message = script.messages.at(m);
            const auto sent = trace.messages.at(m);
            // Its first byte and its last one.
            for (const qsizetype position : {end, end + message.bytes - 1}) {
                while (offer != trace.offers.cend() && offer->begin + offer->length <= position)
                    ++offer;
                if (offer != trace.offers.cend())
                    add(groups[nameOf(plan, message)], play,
                        std::chrono::duration<double, std::milli>(offer->at - sent).count());
            }
            end += message.bytes;
        }
    }
}

void Lateness::add(Group &group, Play play, double ms)
{
    group.ms[play].push_back(ms);
    ++group.count[play];
    for (std::size_t i = 0; i < LimitsMs.size(); ++i)
        group.late[play][i] += ms > LimitsMs[i];
}

void Lateness::endEpisode()
{
    for (Group &group : groups) {
        const bool enough =
                *std::min_element(group.count.begin(), group.count.end()) >= LeastPerEpisode;
        for (std::size_t i = 0; enough && i < LimitsMs.size(); ++i) {
            const auto share = [&](Play play) { return group.late[play][i] / group.count[play]; };
            const double stock = (share(Stock) + share(StockAgain)) / 2;
            group.ofLibrary[i].push_back(share(Library) - stock);
            // Of one play against the mean of two.
            group.ofStock[i].push_back((share(Stock) - share(StockAgain)) * std::sqrt(0.75));
        }
        group.count = {};
        group.late = {};
    }
}

QStringList Lateness::later() const
{
    QStringList result;
    for (auto group = groups.cbegin(); group != groups.cend(); ++group) {
        for (std::size_t i = 0; i < LimitsMs.size(); ++i) {
            const auto &differences = group->ofLibrary[i];
            if (differences.empty())
                continue;
            const double more = meanOf(differences);
            const double most = noise(*group, i);
            if (more > std::max(most, LeastShare))
                result += QStringLiteral("%1: %2 % more are later than %3 ms, the noise is %4 %")
                                  .arg(group.key())
                                  .arg(100 * more, 0, 'f', 2)
                                  .arg(LimitsMs[i])
                                  .arg(100 * most, 0, 'f', 2);
        }
    }
    return result;
}

// What the episodes show, or if they are few what their number leaves open.
double Lateness::noise(const Group &group, std::size_t limit)
{
    double count = 1;
    double late = 1;
    for (const std::vector<double> &all : group.ms) {
        count += static_cast<double>(all.size());
        late += static_cast<double>(std::count_if(
                all.begin(), all.end(), [limit](double ms) { return ms > LimitsMs[limit]; }));
    }
    const double share = late / count;
    const double ofOne =
            share * (1 - share) * AlikeInAConnection * static_cast<double>(Plays) / count;
    return Deviations * std::max(errorOfMean(group.ofStock[limit]), std::sqrt(1.5 * ofOne));
}

void Lateness::print(std::FILE *to) const
{
    constexpr std::array<const char *, Plays> Names{"stock", "stock again", "library"};
    std::fprintf(to, "Offers: stock %lld, stock again %lld, library %lld\n",
                 static_cast<long long>(offers[Stock]), static_cast<long long>(offers[StockAgain]),
                 static_cast<long long>(offers[Library]));
    std::fprintf(to, "%-26s %-12s %8s %9s %9s %9s %9s  ms\n", "Lateness of bytes", "", "count",
                 "50 %", "90 %", "99 %", "99.9 %");
    for (auto group = groups.cbegin(); group != groups.cend(); ++group) {
        for (std::size_t play = 0; play < Plays; ++play) {
            std::vector<double> sorted = group->ms[play];
            std::sort(sorted.begin(), sorted.end());
            std::fprintf(to, "%-26s %-12s %8zu %9.2f %9.2f %9.2f %9.2f\n",
                         play == 0 ? qPrintable(group.key()) : "", Names[play], sorted.size(),
                         percentile(sorted, 0.5), percentile(sorted, 0.9), percentile(sorted, 0.99),
                         percentile(sorted, 0.999));
        }
    }
}
