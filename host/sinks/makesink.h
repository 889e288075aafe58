// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include "host/framing.h"
#include "host/sinks/nats/natssettings.h"
#include "host/sinks/sink.h"

#include <QtCore/QString>
#include <QtCore/QStringList>

#include <memory>
#include <optional>

namespace host {

//! Where messages go, as the command line says.
struct OutputOptions
{
    enum Kind { Json, Raw, Count, None, Nats };

    Kind kind = Json;
    QString target; // what stands behind the kind's name and a colon; empty: standard output
    NatsSettings nats; // without the epoch
};

// text: of --output. Nothing: it cannot be understood.
std::optional<OutputOptions> parseOutput(const QString &text);
// What parseOutput() understands, for an error text.
QStringList knownOutputs();

// Whether the program was built with libnats. Without it no sink can be made for that kind.
bool canUseNats();

// epoch: see newEpoch().
std::unique_ptr<Sink> makeSink(const OutputOptions &options, Framing framing, const QString &epoch);

// Numbers of connections begin anew with each process. This tells processes apart: 32 hexadecimal
// digits, chosen at random.
QString newEpoch();

} // namespace host
