// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include "tests/kit/loglines.h"
#include "tests/kit/messagecapture.h"

#include <QtCore/QMutex>
#include <QtCore/QStringList>

#include <utility>

/*!
    What happens during its lifetime, in order: the log lines, see logLine(), and the test's own
    notes between them.

    Thread: any.
    Locks:  mutex.
*/
class EventLog
{
public:
    EventLog() { take(); }
    Q_DISABLE_COPY_MOVE(EventLog)

    static void note(const QString &text)
    {
        const QMutexLocker locker(&mutex);
        events += takeLog();
        events.append(text);
    }

    // The events since the last call.
    static QStringList take()
    {
        const QMutexLocker locker(&mutex);
        events += takeLog();
        return std::exchange(events, {});
    }

private:
    MessageCapture capture;

    static inline QMutex mutex;
    static inline QStringList events; // guarded by mutex
};
