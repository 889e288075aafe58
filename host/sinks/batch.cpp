// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "host/sinks/batch.h"

namespace host {
namespace {

// An origin's texts are mostly its own: address, source and client.
constexpr qint64 OriginTexts = 300;

bool isSame(const Origin &a, const Origin &b)
{
    return a.connection == b.connection && a.time == b.time && a.client == b.client
            && a.task == b.task;
}

} // namespace

void Batch::addBegin(const Origin &origin)
{
    append(Kind::Begin, origin, {});
}

void Batch::add(const Message &message)
{
    Entry &entry = append(Kind::Message, message.origin, message.bytes);
    entry.partial = message.partial;
    entry.position = message.position;
    entry.end = message.end;
    ++count;
}

void Batch::addEnd(const Origin &origin, const QString &reason, quint64 position)
{
    append(Kind::End, origin, reason.toUtf8()).position = position;
}

qint64 Batch::memory() const
{
    return static_cast<qint64>(origins.size()) * (static_cast<qint64>(sizeof(Origin)) + OriginTexts)
            + static_cast<qint64>(list.size() * sizeof(Entry)) + content.size();
}

Batch::Entry &Batch::append(Kind kind, const Origin &origin, QByteArrayView bytes)
{
    if (origins.empty() || !isSame(origins.back(), origin))
        origins.push_back(origin);
    Entry entry;
    entry.kind = kind;
    entry.origin = static_cast<quint32>(origins.size() - 1);
    entry.offset = content.size();
    entry.size = bytes.size();
    content += bytes;
    list.push_back(entry);
    return list.back();
}

} // namespace host
