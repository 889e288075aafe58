// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include "episode.h"
#include "judge.h"
#include "lateness.h"

#include <QtCore/QMap>
#include <QtCore/QStringList>

#include <cstdio>

/*!
    Plays episodes on both sides and adds up what differs.

    Thread: the main one.
*/
class Comparison
{
public:
    struct Counts
    {
        qint64 connections = 0;
        qint64 offers = 0;
        qint64 decided = 0; // compared item by item, lines and offers
        // Should have been decided, but the machine was too late. The connections that are neither
        // decided nor undecided are hasty.
        qint64 undecided = 0;
        qint64 different = 0; // connections with a difference
    };

    // command: the command line that repeats a connection, without the episode and the connection.
    // alsoTimed: compares also how late offers and bytes are. This takes another play of each hasty
    // episode.
    Comparison(const QString &command, bool alsoTimed) : repeatCommand(command), timed(alsoTimed) {}

    // number: the episode's.
    void play(const EpisodePlan &plan, int number);

    const Counts &stock() const { return counts[0]; }
    const Counts &library() const { return counts[1]; }
    // Of connections and of whole episodes. Each text has all that is needed to understand it.
    const QStringList &differences() const { return found; }
    QStringList latenessFindings() const { return lateness.findings(); }

    void print(std::FILE *to) const;

private:
    void compareSides(const EpisodePlan &plan, int number, const EpisodeResult &stockResult,
                      const EpisodeResult &libraryResult);
    Judge::Verdict count(Counts &to, const EpisodePlan &plan, int connection, const Trace &trace);
    void note(const QString &kind, const QString &text);

    const QString repeatCommand;
    const bool timed;
    std::array<Counts, 2> counts;
    Lateness lateness;
    QStringList found;
    QMap<QString, int> kinds; // of differences
};
