// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "host/web/health.h"

namespace host {

QStringList reasonsNotReady(const Snapshot &snapshot)
{
    QStringList reasons;
    if (snapshot.isDraining)
        reasons += QStringLiteral("stopping");
    if (snapshot.port == 0)
        reasons += QStringLiteral("not listening");
    else if (!snapshot.isAccepting)
        reasons += QStringLiteral("not accepting");
    if (!snapshot.sinkConnected)
        reasons += QStringLiteral("output not connected");
    return reasons;
}

QStringList reasonsNotAlive(const Snapshot &snapshot, std::chrono::steady_clock::time_point now)
{
    using std::chrono::duration_cast;
    using std::chrono::milliseconds;
    QStringList reasons;
    if (const auto age = duration_cast<milliseconds>(now - snapshot.taken); age > MostAge)
        reasons += QStringLiteral("main thread: no turn for %1 ms").arg(age.count());
    if (!snapshot.plugin)
        return reasons;
    for (const InputCounters::Worker &worker : snapshot.plugin->workers) {
        if (worker.turnMs > MostTurn.count())
            reasons += QStringLiteral("worker %1: in one turn for %2 ms")
                               .arg(worker.number)
                               .arg(worker.turnMs);
    }
    return reasons;
}

} // namespace host
