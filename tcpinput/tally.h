// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include "plugin/countersevent.h"
#include "tcpinput/workers/workercounters.h"
#include "tcpinput/workers/workerthread.h"

#include <QtCore/QElapsedTimer>
#include <QtCore/QHash>

#include <memory>
#include <vector>

/*!
    Sums what the workers have counted, those that have gone included.

    Thread: the plugin's.
    Owner:  the pool, as a member.
*/
class Tally
{
public:
    // For a new worker.
    std::shared_ptr<WorkerCounters> newCounters();

    void addCounts(InputCounters &sum);
    // number: of the worker that has the thread.
    void addTurn(InputCounters &sum, int number, const WorkerThread &thread);

private:
    //! The turn in which a worker was when it was asked for last.
    struct Seen
    {
        quint64 turn = 0;
        QElapsedTimer since;
    };

    void forgetGone();

    std::vector<std::shared_ptr<WorkerCounters>> workers; // perhaps also some that have gone
    WorkerCounters gone;
    QHash<int, Seen> seen; // by number
};
