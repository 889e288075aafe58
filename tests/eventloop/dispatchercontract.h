// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include "dispatchertest.h"
#include "tests/kit/hangguard.h"

#include <sys/resource.h>

namespace dispatchertest {

// GLib's dispatcher differs in some respects from Qt's own for Unix. We follow the latter.
inline bool isGlib()
{
    return dispatcher()->inherits("QEventDispatcherGlib");
}

/*!
    The contract of an event dispatcher: each scenario runs with Qt's two dispatchers for Unix and
    with ours, without and with moderation of its wake-ups, and must end the same.
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
    QTest::newRow("qt") << QByteArray("qt"); // the default: GLib's, where Qt is built with it
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

// Runs the body in a thread of its own that has the row's dispatcher, outside of any event loop.
inline void DispatcherContract::inThread(const std::function<void()> &body)
{
    BodyThread thread(body);
    setDispatcher(&thread);
    thread.start();
    QVERIFY(thread.wait(2 * HangGuardMs));
}

// Before the thread starts.
inline void DispatcherContract::setDispatcher(QThread *thread)
{
    QFETCH_GLOBAL(QByteArray, dispatcher);
    qputenv("QT_NO_GLIB", dispatcher == "qt-unix" ? "1" : ""); // read when the thread starts
    if (dispatcher == "epoll")
        setEpollDispatcher(thread);
    else if (dispatcher == "epoll-moderated")
        setEpollDispatcher(thread, std::chrono::milliseconds(5));
}

} // namespace dispatchertest
