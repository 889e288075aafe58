// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "tcpinput/accept/pendingconnections.h"

#include <QtTest/QtTest>

#include <memory>

namespace {

template<class Function>
void runIn(QThread &thread, Function function)
{
    QObject context;
    context.moveToThread(&thread);
    QMetaObject::invokeMethod(
            &context,
            [&] {
                function();
                context.moveToThread(QCoreApplication::instance()->thread());
            },
            Qt::BlockingQueuedConnection);
}

} // namespace

// Which thread gets which of the connections that wait.
class tst_PendingConnections : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init();
    void cleanup();

    void nothing();
    void oldestFirst();
    void reservedForOneThread();
    void unreservedBehindReserved();
    void lateComerGetsNothing();
    void moreReservationsThanConnections();
    void takeAll();
    void moveOnly();

private:
    std::optional<int> takeIn(QThread &thread)
    {
        std::optional<int> taken;
        runIn(thread, [&] { taken = pending->take(); });
        return taken;
    }

    std::unique_ptr<PendingConnections<int>> pending;
    QThread other;
};

void tst_PendingConnections::init()
{
    pending = std::make_unique<PendingConnections<int>>();
    other.start();
}

void tst_PendingConnections::cleanup()
{
    other.quit();
    other.wait();
}

void tst_PendingConnections::nothing()
{
    QCOMPARE(pending->size(), 0);
    QVERIFY(!pending->take());
    pending->reserveFor(&other);
    QVERIFY(!takeIn(other));
    QVERIFY(pending->takeAll().empty());
}

void tst_PendingConnections::oldestFirst()
{
    for (int n = 1; n <= 3; ++n)
        pending->add(n);
    QCOMPARE(pending->take(), 1);
    QCOMPARE(takeIn(other), 2);
    QCOMPARE(pending->size(), 1);
    QCOMPARE(pending->take(), 3);
    QVERIFY(!pending->take());
}

void tst_PendingConnections::reservedForOneThread()
{
    for (int n = 1; n <= 4; ++n) {
        pending->add(n);
        pending->reserveFor(n % 2 == 0 ? QThread::currentThread() : &other);
    }
    QCOMPARE(pending->size(), 4); // reserved ones still wait
    QCOMPARE(pending->take(), 2);
    QCOMPARE(pending->take(), 4);
    QVERIFY(!pending->take());
    QCOMPARE(takeIn(other), 1);
    QCOMPARE(takeIn(other), 3);
    QVERIFY(!takeIn(other));
}

void tst_PendingConnections::unreservedBehindReserved()
{
    for (int n = 1; n <= 3; ++n)
        pending->add(n);
    pending->reserveFor(&other);
    QVERIFY(!pending->take());
    pending->reserveFor(QThread::currentThread());
    QCOMPARE(takeIn(other), 1);
    QVERIFY(!takeIn(other));
    QCOMPARE(pending->take(), 2);
    QVERIFY(!pending->take());
    QCOMPARE(pending->size(), 1);
    pending->reserveFor(&other);
    QCOMPARE(takeIn(other), 3);
}

// The connection for this thread was closed meanwhile. The next one is not dealt out yet.
void tst_PendingConnections::lateComerGetsNothing()
{
    pending->add(1);
    pending->reserveFor(&other);
    pending->takeAll();
    pending->add(2);
    QVERIFY(!takeIn(other));
    pending->reserveFor(QThread::currentThread());
    QVERIFY(!takeIn(other));
    QCOMPARE(pending->take(), 2);
}

// Surplus reservations are not kept for later connections.
void tst_PendingConnections::moreReservationsThanConnections()
{
    pending->add(1);
    pending->reserveFor(QThread::currentThread());
    pending->reserveFor(&other);
    pending->add(2);
    QVERIFY(!takeIn(other));
    QCOMPARE(pending->take(), 1);
    QVERIFY(!pending->take());
}

void tst_PendingConnections::takeAll()
{
    for (int n = 1; n <= 3; ++n)
        pending->add(n);
    pending->reserveFor(&other);
    QCOMPARE(pending->takeAll(), (std::deque<int>{1, 2, 3}));
    QCOMPARE(pending->size(), 0);
    pending->add(4);
    pending->reserveFor(QThread::currentThread());
    QCOMPARE(pending->take(), 4); // nothing else is reserved any more
}

void tst_PendingConnections::moveOnly()
{
    PendingConnections<std::unique_ptr<int>> owned;
    owned.add(std::make_unique<int>(7));
    QCOMPARE(**owned.take(), 7);
}

QTEST_GUILESS_MAIN(tst_PendingConnections)
#include "tst_pendingconnections.moc"
