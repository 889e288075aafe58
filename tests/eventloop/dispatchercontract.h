// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include "dispatchertest.h"
#include "tests/kit/hangguard.h"

#include <sys/resource.h>

namespace dispatchertest {

// GLib's dispatcher differs in some points from Qt's own dispatcher for Unix. Ours follows the
// latter.
inline bool isGlib()
{
    return dispatcher()->inherits("QEventDispatcherGlib");
}

/*!
    The contract of an event dispatcher. Each test runs with Qt's two dispatchers for Unix, and with
    ours, without and with wake-up moderation. The result must be the same.
*/
class DispatcherContract : public QObject
{
protected:
    void addRows();
    void prepare();
    void begin();

    void inThread(const std::function<void()> &body);
    void setDispatcher(QThread *thread);
};

inline void DispatcherContract::addRows()
{
    QTest::addColumn<QByteArray>("dispatcher");
    QTest::newRow("epoll") << QByteArray("epoll");
    QTest::newRow("epoll-moderated") << QByteArray("epoll-moderated");
    QTest::newRow("qt") << QByteArray("qt"); // Qt's default: GLib's, if Qt is built with GLib
    QTest::newRow("qt-unix") << QByteArray("qt-unix");
}

inline void DispatcherContract::prepare()
{
    rlimit limit{};
    QCOMPARE(getrlimit(RLIMIT_NOFILE, &limit), 0);
    limit.rlim_cur = limit.rlim_max;
    QCOMPARE(setrlimit(RLIMIT_NOFILE, &limit), 0);
    QVERIFY2(limit.rlim_max >= 4096, "These tests need 4,096 descriptors.");
}

inline void DispatcherContract::begin()
{
    QTest::failOnWarning(expression(".*"));
}

// Runs the body in a new thread with the row's dispatcher. No event loop runs in that thread.
inline void DispatcherContract::inThread(const std::function<void()> &body)
{
    BodyThread thread(body);
    setDispatcher(&thread);
    thread.start();
    QVERIFY(thread.wait(2 * HangGuardMs));
}

// Call it before the thread starts.
inline void DispatcherContract::setDispatcher(QThread *thread)
{
    QFETCH_GLOBAL(QByteArray, dispatcher);
    qputenv("QT_NO_GLIB", dispatcher == "qt-unix" ? "1" : ""); // Qt reads it when the thread starts
    if (dispatcher == "epoll")
        setEpollDispatcher(thread);
    else if (dispatcher == "epoll-moderated")
        setEpollDispatcher(thread, std::chrono::milliseconds(5));
}

} // namespace dispatchertest
