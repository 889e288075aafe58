// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include "script.h"

#include <QtCore/QHash>
#include <QtCore/QStringList>

#include <deque>
#include <functional>
#include <map>

//! What a connection's lines and offers are called, whatever ports and threads it happened to have.
struct CourseNames
{
    bool tls = false;
    bool wildcard = false; // the plugin listens on all addresses
    int task = 0;
    int timeoutMs = 60000;
    QString listens; // the address in its configuration
    QString local; // and the one that devices connect to
};

//! When what is not up to the plugin happened, in ms. Zero is when the script began.
struct CourseTimes
{
    double created = 0; // the client
    QList<double> messages;
    double end = 0;
    QHash<qsizetype, double> answers; // of those that are late, by offer
};

/*!
    The one way in which a spaced script has to go, given the times at which things happened; and
    how far from it another way was.

    Thread: one.
*/
class Course
{
public:
    Course(const Script &played, const CourseNames &givenNames, const CourseTimes &givenTimes);

    // By the script alone, if nothing takes any time.
    static CourseTimes plannedTimes(const Script &script);
    static QString offerText(qsizetype begin, qsizetype length);
    // What each record of a connection says beside its bytes.
    static QString recordText(const CourseNames &names);

    struct Offer
    {
        QString text;
        qsizetype lines = 0; // that are written before the host has it
        double at = 0;
        double inexact = 0; // if it is a timer's doing, by how much its time may differ
    };

    QStringList lines;
    QList<Offer> offers;
    // The least distance, in ms, of two things that had to come in this order, or of one and a
    // limit of time.
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
    double before = -1e9; // the last that happened, and what its time may be wrong by
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
