// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include "host/sinks/nats/natssettings.h"
#include "host/sinks/sql/keep.h"

#include <QtCore/QString>
#include <QtCore/QStringList>

#include <optional>

namespace host {

//! Where messages go, as the command line says.
struct OutputOptions
{
    enum Kind { Json, Raw, Count, None, Sqlite, Postgres, Nats };

    Kind kind = Json;
    QString target; // what stands behind the kind's name and a colon; empty: standard output
    Keep keep; // for Sqlite
    NatsSettings nats; // for Nats; without the epoch

    // Whether a message is known again by its place in its connection.
    bool needsPositions() const { return kind == Sqlite || kind == Postgres || kind == Nats; }
};

// text: of --output. Nothing: it cannot be understood.
std::optional<OutputOptions> parseOutput(const QString &text);
// What parseOutput() understands, for an error text.
QStringList knownOutputs();
// The name by which parseOutput() understands it.
QString nameOf(OutputOptions::Kind kind);
// Empty, or what the program was built without.
QString missingFor(OutputOptions::Kind kind);

} // namespace host
