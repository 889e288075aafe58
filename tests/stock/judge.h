// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include "episode.h"

#include <QtCore/QString>

/*!
    Compares what was seen of connections with what has to be, and with each other.

    Thread: any.
*/
namespace Judge {

//! How one connection went on one side.
struct Verdict
{
    // Whether there was only one way to go, given what the machine and the two ends have done.
    bool decided = false;
    QStringList differences; // from that way, or from what holds whatever the way
    QString course; // what was expected, if decided
};

// timed: whether a spaced connection's offers may not be late, either, unless the machine was.
Verdict judge(const EpisodePlan &plan, int connection, const Trace &trace, bool timed);

// In words, what was seen.
QString describe(const Trace &trace);

// Where two lists differ first; empty: nowhere.
QString firstDifference(const QStringList &expected, const QStringList &actual);

} // namespace Judge
