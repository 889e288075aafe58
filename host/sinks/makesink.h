// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include "host/framing.h"
#include "host/outputoptions.h"
#include "host/sinks/sink.h"
#include "host/sinks/store.h"

#include <QtCore/QString>

#include <memory>

namespace host {

// epoch: see newEpoch(). Null if the program was built without what is needed, see missingFor().
std::unique_ptr<Sink> makeSink(const OutputOptions &options, Framing framing, const QString &epoch);
// What is behind it. Null also for other outputs than stores.
std::unique_ptr<Store> makeStore(const OutputOptions &options, const QString &epoch);

// Numbers of connections begin anew with each process. This tells processes apart: 32 hexadecimal
// digits, chosen at random.
QString newEpoch();

} // namespace host
