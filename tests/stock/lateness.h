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
    How long bytes take from their device to the first offer that has them: with the library, with
    the plain plugin, and with the plain plugin in another play of the same scripts. The other play
    shows what is noise. Each byte is compared with itself.

    Thread: one.
*/
class Lateness
{
public:
    enum Play { Stock, StockAgain, Library };
    static constexpr std::size_t Plays = 3;

    // To be called for all plays of one episode in any order, and then endEpisode().
    void add(Play play, const EpisodePlan &plan, const std::vector<Trace> &traces);
    void endEpisode(const EpisodePlan &plan);

    // In words: where the library is later than the plain plugin by more than the noise, and
    // whether the number of its offers differs by more than the noise.
    QStringList findings() const;
    void print(std::FILE *to) const;

    // The lateness of the first and the last byte of each message, in ms; < 0: never offered.
    static std::vector<double> latenessOf(const Script &script, const Trace &trace);

private:
    // A byte is late if it is later than a limit.
    static constexpr std::array<double, 6> LimitsMs{3, 20, 150, 500, 1500, 2500};
    template<class Value>
    using ByLimit = std::array<Value, LimitsMs.size()>;

    // Bytes of similar messages: with the same transport, and of a similar size and pause before.
    struct Group
    {
        std::array<std::vector<double>, Plays> ms; // of the bytes that were offered in each play
        std::array<ByLimit<double>, Plays> late{}; // how many were later than a limit
        // The plain plugin's two plays differ in how many bytes are late. Sums of the squares of
        // these differences: one for each connection, and one for each episode.
        ByLimit<double> ofConnections{};
        ByLimit<double> ofEpisodes{};

        double count() const { return static_cast<double>(ms[Stock].size()); }
        // The library's share of late bytes, less the plain plugin's.
        double more(std::size_t limit) const;
        double noise(std::size_t limit) const; // of more()
    };

    // The results of latenessOf() for one play, by connection.
    using Played = std::vector<std::vector<double>>;

    static QString nameOf(const EpisodePlan &plan, const Message &message);

    QMap<QString, Group> groups;
    std::array<Played, Plays> inHand; // of the current episode
    std::array<std::vector<double>, Plays> offersInHand; // by connection
    std::array<double, Plays> offers{};
    double offersOfConnections = 0; // see Group::ofConnections
    double offersOfEpisodes = 0;
};
