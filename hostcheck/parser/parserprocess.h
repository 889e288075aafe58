// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include "hostcheck/parser/fencedbytes.h"

#include <QtCore/QByteArray>
#include <QtCore/QString>

#include <functional>
#include <vector>

namespace hostcheck {

//! One call of a parser: some bytes of a stream.
struct Call
{
    qsizetype begin = 0;
    qsizetype size = 0;
    Fence fence = Fence::Behind;
};

//! What has become of a call.
struct Outcome
{
    enum Kind {
        NotRun, // too many calls before it were fatal
        Returned,
        Crashed,
        Endless, // it has used up its processor time
    };

    Kind kind = NotRun;
    qsizetype value =
            0; // Returned: the bytes consumed; more than the largest number counts as that
    int signal = 0; // Crashed
    // Crashed by an access to memory near the bytes: from the first byte to where it was.
    bool isNearBytes = false;
    qsizetype distance = 0;
};

/*!
    Calls the function consume() of a shared object in processes of its own, so that a crash or an
    endless loop is an outcome and not the end of this program.

    Thread: one at a time. The program must have no other threads: it forks.
    Owner:  the caller.
*/
class ParserProcess
{
public:
    using Progress = std::function<void(size_t done)>;

    // file: a shared object with size_t consume(const char *, size_t).
    // timeLimitMs: processor time of one call.
    ParserProcess(const QString &file, int timeLimitMs);

    // Empty if the file can be loaded and has the function; otherwise the reason.
    QString loadError();

    // Makes the calls in their order, in one process, as long as none is fatal; behind one that is,
    // in a new process. After maximumFatal of them the others are not made.
    std::vector<Outcome> run(const QByteArray &bytes, const std::vector<Call> &calls,
                             const Progress &progress = {}, int maximumFatal = 8);

    // Calls with all bytes, and then each time with what is left, until nothing is consumed, or
    // more than there is, or a call is fatal. Returns where each message ends that was consumed.
    std::vector<qsizetype> messageEnds(const QByteArray &bytes);

    // Why calls could not be made, for want of memory or processes; or empty.
    QString error() const { return lastError; }

    void setTimeLimitMs(int limit) { timeLimitMs = limit; }
    // A call that uses hardly any processor time for so long by the wall clock counts as endless.
    // 30,000 by default; at least the time limit.
    void setStandstillMs(int limit) { standstillMs = limit; }

private:
    class Batch;
    struct Ending;
    enum class Order { Listed, Chained };

    std::vector<Outcome> runIn(const QByteArray &bytes, const std::vector<Call> &calls, Order order,
                               const Progress &progress, int maximumFatal);
    // Forks a process that goes on with the batch, and waits for its end.
    Ending runProcess(Batch &batch, const Progress &progress);

    QByteArray fileName;
    int timeLimitMs;
    int standstillMs = 30000;
    QString lastError;
};

} // namespace hostcheck
