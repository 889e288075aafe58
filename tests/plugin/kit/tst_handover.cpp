// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "plugin/kit/handover.h"

#include "tests/kit/hangguard.h"
#include "tests/kit/messagecapture.h"

#include <QtCore/QSemaphore>
#include <QtCore/QThread>
#include <QtTest/QtTest>

#include <memory>

using namespace inputkit;

namespace {

//! A thread with an event loop and an object in it, until the end of the test.
class Receiver
{
public:
    Receiver()
    {
        object->moveToThread(&thread);
        thread.start();
    }
    ~Receiver()
    {
        destroyObject();
        thread.quit();
        thread.wait();
    }
    Q_DISABLE_COPY_MOVE(Receiver)

    void destroyObject()
    {
        if (object)
            QMetaObject::invokeMethod(
                    object, [gone = object] { delete gone; }, Qt::BlockingQueuedConnection);
        object = nullptr;
    }
    // Returns when all that was posted before is handled.
    void drain() const
    {
        QMetaObject::invokeMethod(
                object, [] {}, Qt::BlockingQueuedConnection);
    }

    QObject *object = new QObject; // null: destroyed
    QThread thread;
};

Origin originOf(quint64 connection)
{
    Origin origin;
    origin.connection = connection;
    origin.peer = QStringLiteral("peer %1").arg(connection);
    return origin;
}

} // namespace

class tst_HandOver : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void keepsOrderAndContent();
    void emptyMessagesAreNotNull();
    void tellsWhenItIsFull();
    void goesWithoutAReceiver();
    void receiverMayGoMeanwhile();
    void sendsTheRestWhenItGoes();
    void handlerRunsAnEventLoop();
    void handlerDestroysTheReceiver();
};

void tst_HandOver::keepsOrderAndContent()
{
    Receiver receiver;
    QStringList seen;
    QThread *in = nullptr;
    InputHandlers handlers;
    handlers.message = [&](const InputMessage &message) {
        in = QThread::currentThread();
        seen += QStringLiteral("%1: %2 %3-%4 %5")
                        .arg(message.origin.peer, QString::fromLatin1(message.bytes.toByteArray()))
                        .arg(message.position)
                        .arg(message.end)
                        .arg(message.partial);
    };
    handlers.end = [&](const InputEnd &end) {
        seen += QStringLiteral("%1: %2 %3").arg(end.origin.peer, end.reason).arg(end.position);
    };
    HandOver handOver(receiver.object, handlers);
    {
        const QByteArray gone = "one"; // the bytes are the caller's
        handOver.add(InputMessage{originOf(1), gone, 0, 4, false});
        handOver.add(InputMessage{originOf(2), "two", 4, 8, true});
        handOver.add(InputEnd{originOf(1), QStringLiteral("peer"), 4});
        handOver.add(InputMessage{originOf(2), "", 8, 9, false});
    }
    handOver.flush();
    receiver.drain();
    QCOMPARE(seen,
             QStringList({QStringLiteral("peer 1: one 0-4 0"), QStringLiteral("peer 2: two 4-8 1"),
                          QStringLiteral("peer 1: peer 4"), QStringLiteral("peer 2:  8-9 0")}));
    QCOMPARE(in, &receiver.thread);
}

// A database, for one, would store nothing at all instead of an empty message.
void tst_HandOver::emptyMessagesAreNotNull()
{
    Receiver receiver;
    QList<bool> areNull;
    InputHandlers handlers;
    handlers.message = [&](const InputMessage &message) { areNull += message.bytes.isNull(); };
    HandOver handOver(receiver.object, handlers);
    handOver.add(InputMessage{originOf(1), "", 0, 1, false});
    handOver.add(InputMessage{originOf(1), {}, 1, 2, false});
    handOver.flush();
    receiver.drain();
    QCOMPARE(areNull, QList<bool>({false, false}));
}

void tst_HandOver::tellsWhenItIsFull()
{
    Receiver receiver;
    QSemaphore begun;
    QSemaphore gate;
    InputHandlers handlers;
    handlers.message = [&](const InputMessage &) {
        begun.release();
        gate.acquire();
    };
    HandOver handOver(receiver.object, handlers);
    QList<bool> told;
    connect(&handOver, &HandOver::full, this, [&told](bool isFull) { told += isFull; });
    const QByteArray large(1024 * 1024, 'x');
    int sent = 0;
    while (told.isEmpty() && sent < 100) {
        handOver.add(InputMessage{originOf(1), large, 0, 1, false});
        ++sent;
    }
    QCOMPARE(told, QList<bool>{true});
    QCOMPARE(sent, 8); // with what an item costs, a little more than 8 MiB
    gate.release(sent / 2);
    begun.acquire(sent / 2 + 1); // the next one waits: half of them have landed, but for it
    QCoreApplication::processEvents();
    QCOMPARE(told, QList<bool>{true});
    gate.release(sent);
    QTRY_COMPARE_WITH_TIMEOUT(told, (QList<bool>{true, false}), HangGuardMs);
}

void tst_HandOver::goesWithoutAReceiver()
{
    const MessageCapture capture;
    Receiver receiver;
    HandOver handOver(receiver.object, {});
    receiver.destroyObject();
    for (int n = 0; n < 3; ++n) {
        handOver.add(InputMessage{originOf(1), "abc", 0, 4, false});
        handOver.flush();
    }
    QCOMPARE(MessageCapture::take().size(), 1);
}

// What is on its way when the receiver goes counts no more.
void tst_HandOver::receiverMayGoMeanwhile()
{
    Receiver receiver;
    QSemaphore gate;
    QMetaObject::invokeMethod(
            receiver.object, [&gate] { gate.acquire(); }, Qt::QueuedConnection);
    int handled = 0;
    InputHandlers handlers;
    handlers.message = [&handled](const InputMessage &) { ++handled; };
    HandOver handOver(receiver.object, handlers);
    QList<bool> told;
    connect(&handOver, &HandOver::full, this, [&told](bool isFull) { told += isFull; });
    // Deleted before the batches: it is the first event behind the gate.
    QMetaObject::invokeMethod(
            receiver.object, [gone = receiver.object] { delete gone; }, Qt::QueuedConnection);
    receiver.object = nullptr;
    const QByteArray large(1024 * 1024, 'x');
    for (int n = 0; n < 10; ++n)
        handOver.add(InputMessage{originOf(1), large, 0, 1, false});
    QCOMPARE(told, QList<bool>{true});
    gate.release();
    QTRY_COMPARE_WITH_TIMEOUT(told, (QList<bool>{true, false}), HangGuardMs);
    QCOMPARE(handled, 0);
}

void tst_HandOver::sendsTheRestWhenItGoes()
{
    Receiver receiver;
    int handled = 0;
    InputHandlers handlers;
    handlers.message = [&handled](const InputMessage &) { ++handled; };
    {
        HandOver handOver(receiver.object, handlers);
        handOver.add(InputMessage{originOf(1), "abc", 0, 4, false});
    }
    receiver.drain();
    QCOMPARE(handled, 1);
}

void tst_HandOver::handlerRunsAnEventLoop()
{
    Receiver receiver;
    QByteArrayList seen;
    bool isNested = false;
    QSemaphore handled; // drain() alone may return while a handler runs its loop
    InputHandlers handlers;
    handlers.message = [&](const InputMessage &message) {
        QVERIFY(!isNested);
        seen += message.bytes.toByteArray();
        isNested = true;
        QCoreApplication::processEvents();
        isNested = false;
        handled.release();
    };
    QSemaphore gate;
    QMetaObject::invokeMethod(
            receiver.object, [&gate] { gate.acquire(); }, Qt::QueuedConnection);
    HandOver handOver(receiver.object, handlers);
    for (const QByteArray &batch : {QByteArray("a"), QByteArray("c")}) {
        handOver.add(InputMessage{originOf(1), batch, 0, 1, false});
        handOver.add(InputMessage{originOf(1), batch + '2', 0, 1, false});
        handOver.flush();
    }
    gate.release();
    QVERIFY(handled.tryAcquire(4, HangGuardMs));
    QCOMPARE(seen, QByteArrayList({"a", "a2", "c", "c2"}));
}

void tst_HandOver::handlerDestroysTheReceiver()
{
    Receiver receiver;
    int handled = 0;
    QSemaphore begun;
    InputHandlers handlers;
    handlers.message = [&](const InputMessage &) {
        ++handled;
        delete std::exchange(receiver.object, nullptr);
        begun.release();
    };
    HandOver handOver(receiver.object, handlers);
    handOver.add(InputMessage{originOf(1), "a", 0, 1, false});
    handOver.add(InputMessage{originOf(1), "b", 0, 1, false});
    handOver.flush();
    QVERIFY(begun.tryAcquire(1, HangGuardMs));
    receiver.thread.quit();
    QVERIFY(receiver.thread.wait(HangGuardMs));
    QCOMPARE(handled, 1);
}

QTEST_GUILESS_MAIN(tst_HandOver)
#include "tst_handover.moc"
