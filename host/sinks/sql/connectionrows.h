// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include "host/sinks/batch.h"

#include <QtCore/QByteArrayView>

#include <optional>
#include <vector>

namespace host {

//! What a transaction says of one connection: it has begun, it is over, or both. A value that
//! refers to the transaction's batches.
struct ConnectionRow
{
    const Origin *origin = nullptr;
    // Milliseconds since the beginning of 1970.
    std::optional<qint64> began;
    std::optional<qint64> ended;
    QByteArrayView reason; // of the end
    quint64 length = 0; // likewise: the connection's bytes
};

// Each connection at most once, in the order in which they are named first.
std::vector<ConnectionRow> connectionRows(const std::vector<Batch> &batches);

} // namespace host
