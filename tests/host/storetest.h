// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include "host/sinks/storesink.h"
#include "tests/kit/hangguard.h"
#include "tests/kit/loglines.h"

#include <QtCore/QFile>
#include <QtTest/QtTest>

#include <chrono>
#include <optional>

// What the tests of all stores have in common.
namespace storetest {

constexpr std::chrono::milliseconds LongTime(HangGuardMs);

inline host::Origin originOf(quint64 connection)
{
    const QString number = QString::number(connection);
    host::Origin origin;
    origin.connection = connection;
    origin.time = QDateTime::fromMSecsSinceEpoch(1700000000000 + qint64(connection), Qt::UTC);
    origin.plugin = QStringLiteral("tcp");
    origin.source = QStringLiteral("TCP:tcp2:127.0.0.1:7446-10.0.0.%1:5").arg(number);
    origin.peer = QStringLiteral("10.0.0.") + number;
    origin.port = 65535;
    origin.client = QStringLiteral("d'or \"%1\"; drop table messages; --").arg(number);
    origin.task = QStringLiteral("2");
    return origin;
}

//! Gives a sink one connection's messages, as lines whose bytes follow each other.
class Talker
{
public:
    Talker(host::Sink &messageSink, quint64 connection)
        : sink(messageSink),
          origin(originOf(connection))
    {}

    void begin() { sink.began(origin); }
    void say(const QByteArray &bytes, bool partial = false)
    {
        const quint64 end = position + quint64(bytes.size()) + (partial ? 0 : 1);
        sink.write({origin, {}, bytes, position, end, partial});
        position = end;
    }
    // "<first>", "<first + 1>" and so on.
    void count(int first, int number)
    {
        for (int n = first; n < first + number; ++n)
            say(QByteArray::number(n));
    }
    void end(const QString &reason) { sink.ended(origin, reason, position); }

    host::Sink &sink;
    host::Origin origin;
    quint64 position = 0;
};

// Hostile contents.
inline QByteArrayList oddMessages()
{
    return {"plain",
            "",
            QByteArray("\0", 1),
            QByteArray("a\0b'\"\\;--\n", 10),
            "\xff\xfe\xc0\x80",
            QByteArray(300000, 'L'),
            "\xe2\x82\xac"};
}

inline QByteArrayList numbers(int first, int count)
{
    QByteArrayList list;
    for (int n = first; n < first + count; ++n)
        list += QByteArray::number(n);
    return list;
}

//! The log lines since it was made. One at a time.
class Log
{
public:
    const QStringList &lines()
    {
        all += takeLog();
        return all;
    }
    int count(const QString &text) { return int(lines().filter(text).size()); }
    bool has(const char *text) { return count(QString::fromUtf8(text)) > 0; }

private:
    const MessageCapture capture;
    QStringList all;
};

} // namespace storetest
