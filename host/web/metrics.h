// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include <QtCore/QByteArray>

namespace host {

struct ProcessFigures;
struct Snapshot;

// The snapshot in the text format of Prometheus, version 0.0.4. age: of the snapshot, in seconds.
// What only a plugin knows is missing while none listens.
// Thread: any; no shared state.
QByteArray metricsText(const Snapshot &snapshot, const ProcessFigures &process, double age);

// The value of Content-Type for it.
constexpr char MetricsType[] = "text/plain; version=0.0.4; charset=utf-8";

} // namespace host
