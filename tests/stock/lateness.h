// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include "episode.h"

#include <QtCore/QMap>
#include <QtCore/QString>

#include <array>
#include <cstdio>

/*!
    How long bytes take from their device to the first offer that has them: the library's, the plain
    plugin's, and the plain plugin's in another play of the same scripts, which shows what is noise.

    Thread: one.
*/
class Lateness
{
public:
    enum Play { Stock, StockAgain, Library };
    static constexpr std::size_t Plays = 3;

    // All plays of one episode, one after another, in any order.
    void add(Play play, const EpisodePlan &plan, const std::vector<Trace> &traces);
    void endEpisode();

    // Where the library is later than the plain plugin by more than the noise, in words.
    QStringList later() const;
    void print(std::FILE *to) const;

private:
    // Later than each of these.
    static constexpr std::array<double, 6> LimitsMs{3, 20, 150, 500, 1500, 2500};

    struct Group
    {
        std::array<std::vector<double>, Plays> ms;
        // Of the episode in hand: how many there were, and how many were later than each limit.
        std::array<double, Plays> count{};
        std::array<std::array<double, LimitsMs.size()>, Plays> late{};
        // Of each episode: by how much the shares of late ones differed.
        std::array<std::vector<double>, LimitsMs.size()> ofLibrary;
        std::array<std::vector<double>, LimitsMs.size()> ofStock;
    };

    void add(Group &group, Play play, double ms);
    static double noise(const Group &group, std::size_t limit);
    static QString nameOf(const EpisodePlan &plan, const Message &message);

    QMap<QString, Group> groups;
    std::array<qint64, Plays> offers{};
};
