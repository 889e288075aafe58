// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include "hostcheck/parser/traffic.h"
#include "hostcheck/program/play.h"
#include "hostcheck/report.h"

#include <QtCore/QRegularExpression>

#include <map>
#include <vector>

namespace hostcheck {

/*!
    Checks a host program with what one device sends: every split point and every early end of each
    message, with its neighbours, over connections of their own; the whole traffic at once, twice,
   and byte by byte.

    Thread: the main thread, with an event loop.
    Owner:  the caller.
*/
class ProgramChecks
{
public:
    // timeLimitMs: how long the host may take to print what is due. deviceTraffic: with a framing;
    // outlives this object.
    ProgramChecks(const QString &hostCommand, int timeLimitMs, const Traffic &deviceTraffic);

    QList<Verdict> run(const QRegularExpression &only);

private:
    enum class Fault { None, Lost, Doubled, CutOff, Foreign, Order, Stall };

    //! A play that shows a fault, the one with the fewest bytes, and what was printed.
    struct Finding
    {
        Play play;
        QByteArrayList printed;
        int count = 0;
    };

    //! Positions of a message in the stream, and of those beside it.
    struct Window
    {
        qsizetype first; // the begin of the one before it
        qsizetype begin;
        qsizetype end;
        qsizetype last; // the end of the one behind it
    };

    static QString nameOf(Fault fault);
    Verdict verdictOnRun(const std::vector<PlayResult> &results, const QString &error) const;
    void planAll();
    Window windowOf(size_t number) const;
    // Plays each step-th split point. number: of split points before this message; is counted on.
    void planMessage(const Window &window, qsizetype step, qsizetype &number);
    Fault faultOf(const Play &play, const PlayResult &result) const;
    void note(std::map<Fault, Finding> &findings, const std::vector<Play> &plays,
              const std::vector<PlayResult> &results) const;
    Finding smallest(Fault fault, Finding finding) const;
    std::vector<Play> smallerThan(const Play &play) const;
    QString describe(const Finding &finding) const;

    QString command;
    int patienceMs;
    const Traffic &traffic;
    std::vector<Play> plan;
    qsizetype leftOut = 0; // plays
};

} // namespace hostcheck
