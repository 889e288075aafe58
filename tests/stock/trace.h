// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include "logtap.h"

#include <QtCore/QHash>
#include <QtCore/QList>
#include <QtCore/QString>

struct TracedLine
{
    qint64 order = 0;
    Clock::time_point at;
    QString text; // without what differs from run to run
};

struct TracedOffer
{
    qint64 order = 0;
    Clock::time_point at; // when the host got it
    qsizetype begin = 0; // in the device's stream
    qsizetype length = 0;
    bool intact = true; // these are the bytes of that part of the stream
    QString record; // all else that the record says, with a course's names
};

//! What was seen of one connection.
struct Trace
{
    Clock::time_point zero; // when its script began
    Clock::time_point created; // when its client was created
    QList<Clock::time_point> messages; // when the device began to send each
    Clock::time_point end; // when the device or the plugin was told to end it
    qsizetype sent = 0;
    QList<TracedLine> lines;
    QList<TracedOffer> offers;
    // The time of the first discard for an offer, by the offer's number.
    QHash<qsizetype, Clock::time_point> discards;
    qsizetype discarded = 0; // the most that the host can have consumed
    bool ended = false; // by a closing line, which gives the next two
    Clock::time_point endedAt;
    qsizetype received = 0;
    std::chrono::nanoseconds workerWaited{}; // its client's thread, in all: see timeHeldUp()
    std::chrono::nanoseconds deviceWaited{}; // its device's thread, likewise
    std::chrono::milliseconds heldUp{}; // the longest delay that the machine can have caused
    bool overdue = false; // it was still open when all had to be over
};
