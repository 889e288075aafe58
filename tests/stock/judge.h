// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include "episode.h"

#include <QtCore/QString>

/*!
    Compares what was seen of a connection with what had to happen, and lists with each other.

    Thread: any.
*/
namespace Judge {

//! How one connection went on one side.
struct Verdict
{
    // Whether only one way was possible, given what the machine and the two ends have done.
    bool decided = false;
    QStringList differences; // from that way, or from what holds in any case
    QString course; // what was expected, if decided
};

// timed: a spaced connection's offers may not be late, unless the machine was late.
Verdict judge(const EpisodePlan &plan, int connection, const Trace &trace, bool timed);

// What was seen, in words.
QString describe(const Trace &trace);

// Where two lists differ first; empty: nowhere.
QString firstDifference(const QStringList &expected, const QStringList &actual);

} // namespace Judge
