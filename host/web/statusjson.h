// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include <QtCore/QByteArray>

#include <chrono>

namespace host {

struct ConnectionPage;
struct ProcessFigures;
struct Snapshot;

// All that is known, as a JSON object; docs/INPUTHOST.md lists its members. What only a plugin
// knows is missing while none listens.
// Thread: any; no shared state.
QByteArray statusJson(const Snapshot &snapshot, std::chrono::steady_clock::time_point now,
                      const ProcessFigures &process, const ConnectionPage &page);

} // namespace host
