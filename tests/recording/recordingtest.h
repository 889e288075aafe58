// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include "recording/entry.h"
#include "recording/format.h"
#include "recording/recordingreader.h"

#include <QtCore/QBuffer>
#include <QtCore/QFile>
#include <QtCore/QList>
#include <QtTest/QtTest>

namespace recordingtest {

using namespace recording;

//! What a recording holds, and how it ends.
struct Contents
{
    QList<Entry> entries;
    RecordingReader::State state = RecordingReader::State::Reading;
    qint64 goodBytes = 0;
    QString error;

    // The payload of a connection, whose positions must have no gap.
    QByteArray bytesOf(quint64 connection) const
    {
        QByteArray bytes;
        for (const Entry &entry : entries) {
            if (entry.type != Entry::Bytes || entry.connection != connection)
                continue;
            if (entry.position != static_cast<quint64>(bytes.size()))
                return "a gap";
            bytes += entry.bytes;
        }
        return bytes;
    }
    qsizetype count(Entry::Type type) const
    {
        return std::count_if(entries.begin(), entries.end(),
                             [type](const Entry &entry) { return entry.type == type; });
    }
};

inline Contents readFrom(QIODevice &device)
{
    RecordingReader reader(device);
    Contents contents;
    while (const auto entry = reader.next())
        contents.entries.append(*entry);
    contents.state = reader.state();
    contents.goodBytes = reader.goodBytes();
    contents.error = reader.errorString();
    return contents;
}

inline Contents readBytes(const QByteArray &bytes)
{
    QBuffer buffer;
    buffer.setData(bytes);
    buffer.open(QIODevice::ReadOnly);
    return readFrom(buffer);
}

inline Contents readFile(const QString &name)
{
    QFile file(name);
    if (!file.open(QIODevice::ReadOnly))
        qFatal("%s: %s", qPrintable(name), qPrintable(file.errorString()));
    return readFrom(file);
}

inline QByteArray contentOf(const QString &name)
{
    QFile file(name);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

inline Entry begin(quint64 connection)
{
    Entry entry;
    entry.type = Entry::Begin;
    entry.elapsedUs = 5;
    entry.connection = connection;
    entry.endpoints = {"192.0.2.7", 50123, "2001:db8::1", 7446};
    return entry;
}

inline Entry bytes(quint64 connection, quint64 position, const QByteArray &payload)
{
    Entry entry;
    entry.type = Entry::Bytes;
    entry.elapsedUs = 1500;
    entry.connection = connection;
    entry.position = position;
    entry.bytes = payload;
    entry.size = static_cast<quint64>(payload.size());
    return entry;
}

inline Entry end(quint64 connection, quint64 position, const QByteArray &reason)
{
    Entry entry;
    entry.type = Entry::End;
    entry.elapsedUs = 3'000'000;
    entry.connection = connection;
    entry.position = position;
    entry.reason = reason;
    return entry;
}

inline QByteArray encoded(const QList<Entry> &entries)
{
    QByteArray out;
    for (const Entry &entry : entries)
        appendEntry(out, entry);
    return out;
}

// A recording that holds these entries, sessions included.
inline QByteArray fileOf(const QList<Entry> &entries)
{
    QByteArray file = fileHeader();
    const QByteArray all = encoded(entries);
    QByteArrayView rest = all;
    while (const auto raw = takeEntry(rest))
        appendFrame(file, *raw);
    return file;
}

inline bool isSame(const Entry &a, const Entry &b)
{
    return a.type == b.type && a.elapsedUs == b.elapsedUs && a.connection == b.connection
            && a.position == b.position && a.size == b.size && a.entries == b.entries
            && a.bytes == b.bytes && a.reason == b.reason && a.endpoints == b.endpoints
            && a.continues == b.continues && a.leavesOutPayload == b.leavesOutPayload
            && a.wasOpen == b.wasOpen;
}

inline bool areSame(const QList<Entry> &a, const QList<Entry> &b)
{
    return std::equal(a.begin(), a.end(), b.begin(), b.end(), isSame);
}

} // namespace recordingtest
