// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include "script.h"

#include <QtCore/QHash>
#include <QtCore/QStringList>

#include <deque>
#include <functional>
#include <map>

//! The names in a connection's lines and offers, which hide its real ports and thread.
struct CourseNames
{
    bool tls = false;
    bool wildcard = false; // the plugin listens on all addresses
    int task = 0;
    int timeoutMs = 60000;
    QString listens; // the address in its configuration
    QString local; // the address that devices connect to
};

//! When the events happened that the plugin does not control, in ms since the script began.
struct CourseTimes
{
    double created = 0; // when the client was created
    QList<double> messages;
    double end = 0;
    // The times of the late answers, by offer.
    QHash<qsizetype, double> answers;
};

/*!
    The only way in which a spaced script may go, given the times at which things happened. Also
    tells how close the script was to going another way.

    Thread: one.
*/
class Course
{
public:
    Course(const Script &played, const CourseNames &givenNames, const CourseTimes &givenTimes);

    // The script's own times, as if nothing took any time.
    static CourseTimes plannedTimes(const Script &script);
    static QString offerText(qsizetype begin, qsizetype length);
    // All that each record of a connection says, except its bytes.
    static QString recordText(const CourseNames &names);

    struct Offer
    {
        QString text;
        qsizetype lines = 0; // that are written before the host has the offer
        double at = 0;
        double inexact = 0; // if a timer makes the offer: how far its time may be off
    };

    QStringList lines;
    QList<Offer> offers;
    // The smallest distance, in ms, between two events that had to come in this order, or between
    // an event and a time limit.
    double slack = 1e9;

    // The offer that is made at the end; -1: none.
    qsizetype lastOffer = -1;

private:
    using Inputs = std::multimap<double, std::function<void()>>;

    void play();
    void plan(double at, std::function<void()> what) { inputs.emplace(at, std::move(what)); }
    void planCheck();
    void begin();
    double idleFrom() const;
    void keepDistance(double distance) { slack = std::min(slack, distance); }

    void read(qsizetype bytes);
    void check();
    void idle(double expiry);
    void end();
    void offer();
    void settle();
    void answer(qsizetype number);
    void discard(const Answer &answer, qsizetype begin, qsizetype length);
    void cut(int length);

    QString id() const;
    qsizetype buffered() const { return received - consumed; }

    const Script &script;
    const CourseNames names;
    const CourseTimes times;

    Inputs inputs; // by time
    double now = -1e9;
    // The time of the last event, plus its possible error.
    double before = -1e9;
    double lastOfferAt = -1e9;
    double uncertainty = 0; // of lastOfferAt
    double checkError = 0; // of nextCheckAt
    double nextCheckAt;
    double lastDelivery;
    bool open = true;
    bool known = false; // its id has been derived
    qsizetype consumed = 0;
    qsizetype received = 0;
    int reads = 0;
    std::deque<qsizetype> toHost;
    std::deque<int> toClient;
    std::deque<std::pair<qsizetype, qsizetype>> offered; // begin and length, by number
};
