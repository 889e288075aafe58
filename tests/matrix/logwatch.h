// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include <QtCore/QHash>
#include <QtCore/QMutex>
#include <QtCore/QRegularExpression>
#include <QtCore/QString>

/*!
    Takes Qt's message output during its lifetime, and keeps what the log says about the ends of
    connections. One at a time.

    Thread: any thread may write; the rest from any.
    Locks:  mutex.
*/
class LogWatch
{
public:
    LogWatch() : previous(qInstallMessageHandler(&LogWatch::handle)) { reset(); }
    ~LogWatch() { qInstallMessageHandler(previous); }
    Q_DISABLE_COPY_MOVE(LogWatch)

    // Bytes that the client had received when it closed, by the device's port.
    static QHash<quint16, qsizetype> closed()
    {
        const QMutexLocker locker(&mutex);
        return receivedBytes;
    }
    // The number of connections that have ended, in their handshake or later.
    static qsizetype ended()
    {
        const QMutexLocker locker(&mutex);
        return receivedBytes.size() + failedHandshakes;
    }
    static qsizetype runningThreads()
    {
        const QMutexLocker locker(&mutex);
        return threads;
    }
    static qsizetype lines()
    {
        const QMutexLocker locker(&mutex);
        return lineCount;
    }

    static void reset()
    {
        const QMutexLocker locker(&mutex);
        receivedBytes.clear();
        failedHandshakes = threads = lineCount = 0;
    }

private:
    static void handle(QtMsgType level, const QMessageLogContext &, const QString &text)
    {
        static const QRegularExpression end(
                QStringLiteral("closing connection tcp2:.*:(\\d+) \\(received (\\d+) bytes,"));
        if (level == QtFatalMsg)
            fprintf(stderr, "%s\n", qPrintable(text));
        const auto closing = end.match(text);
        const QMutexLocker locker(&mutex);
        ++lineCount;
        if (closing.hasMatch())
            receivedBytes.insert(closing.captured(1).toUShort(), closing.captured(2).toLongLong());
        else if (text.contains(QLatin1String("SSL Socket error")))
            ++failedHandshakes;
        else if (text.contains(QLatin1String("Creating new TcpTask2")))
            ++threads;
        else if (text.contains(QLatin1String("TI2: thread finished")))
            --threads;
    }

    const QtMessageHandler previous;

    static inline QMutex mutex; // guards all members below
    static inline QHash<quint16, qsizetype> receivedBytes;
    static inline qsizetype failedHandshakes = 0;
    static inline qsizetype threads = 0;
    static inline qsizetype lineCount = 0;
};
