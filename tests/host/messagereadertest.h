// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include "host/messagereader.h"
#include "host/sinks/countingsink.h"
#include "host/sinks/makesink.h"
#include "host/sinks/streamsink.h"

#include <QtTest/QtTest>

#include <chrono>

#include <fcntl.h>
#include <unistd.h>

namespace messagereadertest {

using namespace host;
using inputkit::Pace;

inline shared_parsedData offer(const QByteArray &bytes, const QString &client = QStringLiteral("c"),
                               int task = 0)
{
    shared_parsedData record(new ParsedData);
    record->setPluginId(QStringLiteral("tcp"));
    record->setPeerAddress(QStringLiteral("127.0.0.2"));
    record->setPeerPort(40001);
    record->setSource(QStringLiteral("TCP:") + client);
    record->setOriginalMessage(bytes);
    record->addPluginSubId(QStringLiteral("client"), client);
    record->addPluginSubId(QStringLiteral("task"), QString::number(task));
    return record;
}

// An offer whose first byte has the position offset in its connection.
inline shared_parsedData stamped(quint64 connection, quint64 offset, const QByteArray &bytes)
{
    shared_parsedData record = offer(bytes);
    record->addPluginSubId(QStringLiteral("offset"), QString::number(offset));
    record->addPluginSubId(QStringLiteral("connection"), QString::number(connection));
    return record;
}

// The record of the end of a connection that has received offset bytes.
inline shared_parsedData endOf(quint64 connection, quint64 offset)
{
    shared_parsedData record = stamped(connection, offset, {});
    record->addPluginSubId(QStringLiteral("end"), QStringLiteral("peer"));
    return record;
}

// A pace without limits: each offer is read completely at once.
inline Pace unhurried()
{
    return {{}, std::chrono::hours(1)};
}

// Tests of a MessageReader that writes into a pipe.
class MessageReaderTest : public QObject
{
protected:
    void begin();
    void end();

    void make(const FrameFormat &format, OutputOptions::Kind output = OutputOptions::Raw,
              const Pace &pace = unhurried());
    QByteArray written() const; // since the last call
    QList<int> discards() const { return discarded; }

    int pipeEnds[2] = {-1, -1};
    std::unique_ptr<Counters> counters;
    std::unique_ptr<Sink> sink;
    std::unique_ptr<MessageReader> reader;
    QList<int> discarded;
};

inline void MessageReaderTest::begin()
{
    QCOMPARE(::pipe2(pipeEnds, O_NONBLOCK | O_CLOEXEC), 0);
    make({});
}

inline void MessageReaderTest::end()
{
    reader.reset();
    ::close(pipeEnds[0]);
    ::close(pipeEnds[1]);
}

inline void MessageReaderTest::make(const FrameFormat &format, OutputOptions::Kind output,
                                    const Pace &pace)
{
    reader.reset();
    discarded.clear();
    counters = std::make_unique<Counters>();
    if (output == OutputOptions::None)
        sink = std::make_unique<CountingSink>(-1);
    else
        sink = std::make_unique<StreamSink>(
                StreamFormat(output == OutputOptions::Json ? StreamFormat::Json : StreamFormat::Raw,
                             format.framing),
                pipeEnds[1]);
    reader = std::make_unique<MessageReader>(format, *sink, *counters, ExactOffers::Limits(), pace);
    connect(reader.get(), &MessageReader::answered, this,
            [this](int bytes, const QMap<QString, QString> &) { discarded += bytes; });
}

inline QByteArray MessageReaderTest::written() const
{
    sink->finish(std::chrono::milliseconds(0)); // what the pipe takes
    QByteArray result;
    char buffer[4096];
    for (ssize_t size = 0; (size = ::read(pipeEnds[0], buffer, sizeof buffer)) > 0;)
        result.append(buffer, size);
    return result;
}

} // namespace messagereadertest
