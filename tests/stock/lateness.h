// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include "episode.h"

#include <QtCore/QMap>
#include <QtCore/QString>

#include <array>
#include <cstdio>
#include <vector>

/*!
    How long bytes take from their device to the first offer that has them: the library's, the plain
    plugin's, and the plain plugin's in another play of the same scripts, which shows what is noise.
    Each byte is compared with itself.

    Thread: one.
*/
class Lateness
{
public:
    enum Play { Stock, StockAgain, Library };
    static constexpr std::size_t Plays = 3;

    // All plays of one episode, one after another, in any order; then its end.
    void add(Play play, const EpisodePlan &plan, const std::vector<Trace> &traces);
    void endEpisode(const EpisodePlan &plan);

    // Where the library is later than the plain plugin by more than the noise, or makes another
    // number of offers, in words.
    QStringList findings() const;
    void print(std::FILE *to) const;

    // Of the first and the last byte of each message, in ms; < 0: never offered.
    static std::vector<double> latenessOf(const Script &script, const Trace &trace);

private:
    // Later than each of these.
    static constexpr std::array<double, 6> LimitsMs{3, 20, 150, 500, 1500, 2500};
    template<class Value>
    using ByLimit = std::array<Value, LimitsMs.size()>;

    // Bytes by the message that they belong to: the transport, its size, the pause before it.
    struct Group
    {
        std::array<std::vector<double>, Plays> ms; // of those that were offered in each play
        std::array<ByLimit<double>, Plays> late{}; // how many were later than a limit
        // By how many the plain plugin's two plays differed, squared: of connections, of episodes.
        ByLimit<double> ofConnections{};
        ByLimit<double> ofEpisodes{};

        double count() const { return static_cast<double>(ms[Stock].size()); }
        double more(std::size_t limit) const; // the library's share of late ones than stock's
        double noise(std::size_t limit) const; // of that
    };

    // Of one play: see latenessOf(), by connection.
    using Played = std::vector<std::vector<double>>;

    static QString nameOf(const EpisodePlan &plan, const Message &message);

    QMap<QString, Group> groups;
    std::array<Played, Plays> inHand; // of the episode
    std::array<std::vector<double>, Plays> offersInHand; // by connection
    std::array<double, Plays> offers{};
    double offersOfConnections = 0; // as of a group
    double offersOfEpisodes = 0;
};
