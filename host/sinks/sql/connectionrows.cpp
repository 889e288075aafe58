// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "host/sinks/sql/connectionrows.h"

#include <QtCore/QHash>

namespace host {

std::vector<ConnectionRow> connectionRows(const std::vector<Batch> &batches)
{
    std::vector<ConnectionRow> rows;
    QHash<quint64, std::size_t> places; // by connection
    for (const Batch &batch : batches) {
        for (const Batch::Entry &entry : batch.entries()) {
            if (entry.kind == Batch::Kind::Message)
                continue;
            const Origin &origin = batch.originOf(entry);
            if (!places.contains(origin.connection)) {
                places.insert(origin.connection, rows.size());
                rows.emplace_back().origin = &origin;
            }
            ConnectionRow &row = rows[places.value(origin.connection)];
            if (entry.kind == Batch::Kind::Begin) {
                row.began = origin.time.toMSecsSinceEpoch();
            } else {
                row.ended = origin.time.toMSecsSinceEpoch();
                row.reason = batch.bytesOf(entry);
                row.length = entry.position;
            }
        }
    }
    return rows;
}

} // namespace host
