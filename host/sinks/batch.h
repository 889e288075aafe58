// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include "host/sinks/sink.h"

#include <QtCore/QByteArray>
#include <QtCore/QByteArrayView>
#include <QtCore/QList>
#include <QtCore/QString>

#include <vector>

namespace host {

/*!
    What has come for a store, in order: beginnings of connections, messages, and ends.

    Thread: one at a time; it is handed from the sink's to the store's.
*/
class Batch
{
public:
    enum class Kind { Begin, Message, End };

    struct Entry
    {
        Kind kind = Kind::Message;
        bool partial = false; // a message's
        quint32 origin = 0; // see originOf()
        quint64 position = 0; // of the first byte; of an end: behind the last byte
        quint64 end = 0; // of a message
        qsizetype offset = 0; // of its bytes, or the reason of an end; see bytesOf()
        qsizetype size = 0;
    };

    void addBegin(const Origin &origin);
    void add(const Message &message);
    void addEnd(const Origin &origin, const QString &reason, quint64 position);

    bool isEmpty() const { return list.empty(); }
    const std::vector<Entry> &entries() const { return list; }
    const Origin &originOf(const Entry &entry) const { return origins[entry.origin]; }
    QByteArrayView bytesOf(const Entry &entry) const
    {
        return QByteArrayView(content).sliced(entry.offset, entry.size);
    }

    qint64 messages() const { return count; }
    // What it takes of memory, about.
    qint64 memory() const;

private:
    Entry &append(Kind kind, const Origin &origin, QByteArrayView bytes);

    std::vector<Origin> origins; // neighbours with equal ones share one
    std::vector<Entry> list;
    QByteArray content;
    qint64 count = 0;
};

//! What is safe of one connection: all messages up to the position, a Message::end.
struct SafePosition
{
    quint64 connection = 0;
    quint64 end = 0;
};

//! What a store has done with: safe, or never to be.
struct Stored
{
    QList<SafePosition> safe; // each connection at most once
    qint64 messages = 0; // as many as are safe now and were not before
    qint64 memory = 0; // of the batches that are done with, see Batch::memory()
};

} // namespace host
