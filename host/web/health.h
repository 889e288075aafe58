// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include "host/web/snapshot.h"

#include <QtCore/QStringList>

#include <chrono>

/*!
    What a snapshot says of the program's health.

    Thread: any; no shared state.
*/
namespace host {

// Why no device should be sent here; empty: it can be.
QStringList reasonsNotReady(const Snapshot &snapshot);

// Why the program should be restarted; empty: each thread goes on. The host's thread stands still
// if the snapshot is older than MostAge; a worker does if its turn lasts longer than MostTurn.
QStringList reasonsNotAlive(const Snapshot &snapshot, std::chrono::steady_clock::time_point now);

// A snapshot is taken so often, and so the time of a worker's turn is known so well.
constexpr std::chrono::milliseconds SnapshotInterval(250);
constexpr std::chrono::milliseconds MostAge = SnapshotInterval + std::chrono::milliseconds(1000);
constexpr std::chrono::milliseconds MostTurn(1000);

} // namespace host
