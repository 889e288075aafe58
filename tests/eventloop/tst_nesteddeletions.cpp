// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "eventloop/epolleventdispatcher.h"

#include <QtCore/QCoreApplication>
#include <QtCore/QEventLoop>
#include <QtCore/QPointer>
#include <QtCore/QThread>
#include <QtTest/QTest>

#include <functional>
#include <utility>

using Dispatcher = EpollEventDispatcher;

namespace {

// Runs the work in a turn of the event loop.
void inATurn(const std::function<void()> &work)
{
    bool done = false;
    QObject context;
    QMetaObject::invokeMethod(
            &context,
            [&] {
                work();
                done = true;
            },
            Qt::QueuedConnection);
    while (!done)
        QAbstractEventDispatcher::instance()->processEvents(QEventLoop::AllEvents);
}

// Whether a turn that may sleep would do so. The work is done at its beginning.
bool sleepsInATurn(const std::function<void()> &work)
{
    auto *dispatcher = QAbstractEventDispatcher::instance();
    while (dispatcher->processEvents(QEventLoop::AllEvents)) {}
    bool begun = false;
    bool sleeps = false;
    const QObject context;
    QObject::connect(dispatcher, &QAbstractEventDispatcher::awake, &context, [&] {
        if (!std::exchange(begun, true))
            work();
    });
    QObject::connect(dispatcher, &QAbstractEventDispatcher::aboutToBlock, &context, [&] {
        sleeps = true;
        dispatcher->wakeUp();
    });
    dispatcher->processEvents(QEventLoop::WaitForMoreEvents);
    return sleeps;
}

// Runs an event loop for several turns. The work is done in the first turn.
void runALoop(const std::function<void()> &work = [] {})
{
    QEventLoop loop;
    QObject context;
    int turns = 0;
    std::function<void()> next = [&] {
        if (++turns == 5)
            loop.quit();
        else
            QMetaObject::invokeMethod(&context, next, Qt::QueuedConnection);
    };
    QMetaObject::invokeMethod(&context, work, Qt::QueuedConnection);
    QMetaObject::invokeMethod(&context, next, Qt::QueuedConnection);
    loop.exec();
}

//! Its destructor calls deleteLater() for another object, and then runs an event loop.
class Last : public QObject
{
public:
    explicit Last(QObject *other) : further(other) {}
    ~Last() override
    {
        Dispatcher::deleteLater(further);
        runALoop();
        survivedTheLoop = further;
    }
    Q_DISABLE_COPY_MOVE(Last)

    static inline bool survivedTheLoop = false;

private:
    const QPointer<QObject> further;
};

} // namespace

/*!
    Calls of Dispatcher::deleteLater() in nested turns. The object is deleted when the outermost
    turn is over.
*/
class tst_NestedDeletions : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void knowsWhetherItIsInATurn();
    void nestedTurnDeletesNothing();
    void nestedTurnDeletesWhatIsNotOurs();
    void deliveredEventsDeleteNothing();
    void deletionIsADeferredOneOutsideOfTurns();
    void deletedByOthersMeanwhile();
    void askedForTwice();
    void destructorRunsALoop();
    void turnOutsideOfTheLoop();
    void turnDoesNotSleepBeforeItDeletes();
    void nestedTurnSleepsBeforeTheOuterOneDeletes();
    void otherDispatchers();
};

void tst_NestedDeletions::knowsWhetherItIsInATurn()
{
    QVERIFY(!Dispatcher::isInTurn());
    bool inTurn = false;
    bool afterANestedOne = false;
    inATurn([&] {
        inTurn = Dispatcher::isInTurn();
        inATurn([] {});
        afterANestedOne = Dispatcher::isInTurn();
    });
    QVERIFY(inTurn);
    QVERIFY(afterANestedOne);
    QVERIFY(!Dispatcher::isInTurn());
}

void tst_NestedDeletions::nestedTurnDeletesNothing()
{
    const QPointer<QObject> object = new QObject;
    bool survivedTheLoop = false;
    bool survivedTheNext = false;
    inATurn([&] {
        runALoop([&] { Dispatcher::deleteLater(object); });
        survivedTheLoop = object;
        runALoop();
        survivedTheNext = object;
    });
    QVERIFY(survivedTheLoop);
    QVERIFY(survivedTheNext);
    QVERIFY(!object);
}

// Qt's deleteLater() deletes in a nested turn. That is why ours exists.
void tst_NestedDeletions::nestedTurnDeletesWhatIsNotOurs()
{
    const QPointer<QObject> object = new QObject;
    bool survived = true;
    inATurn([&] {
        runALoop([&] { object->deleteLater(); });
        survived = object;
    });
    QVERIFY(!survived);
}

// Delivering posted events by hand is no turn. Message handlers and QTest::qWait() do it.
void tst_NestedDeletions::deliveredEventsDeleteNothing()
{
    const QPointer<QObject> object = new QObject;
    bool survived = false;
    inATurn([&] {
        QMetaObject::invokeMethod(
                object, [&] { Dispatcher::deleteLater(object); }, Qt::QueuedConnection);
        QCoreApplication::sendPostedEvents();
        QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
        survived = object;
    });
    QVERIFY(survived);
    QVERIFY(!object);
}

void tst_NestedDeletions::deletionIsADeferredOneOutsideOfTurns()
{
    const QPointer<QObject> object = new QObject;
    Dispatcher::deleteLater(object);
    QVERIFY(object);
    QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
    QVERIFY(!object);
}

void tst_NestedDeletions::deletedByOthersMeanwhile()
{
    const QPointer<QObject> object = new QObject;
    inATurn([&] {
        inATurn([&] { Dispatcher::deleteLater(object); });
        delete object;
    });
    QVERIFY(!object);
}

void tst_NestedDeletions::askedForTwice()
{
    const QPointer<QObject> object = new QObject;
    inATurn([&] {
        inATurn([&] {
            Dispatcher::deleteLater(object);
            Dispatcher::deleteLater(object);
        });
    });
    QVERIFY(!object);
}

void tst_NestedDeletions::destructorRunsALoop()
{
    const QPointer<QObject> further = new QObject;
    const QPointer<QObject> last = new Last(further);
    inATurn([&] { inATurn([&] { Dispatcher::deleteLater(last); }); });
    QVERIFY(!last);
    QVERIFY(Last::survivedTheLoop);
    QVERIFY(!further);
}

// A turn outside of the event loop happens, for example, at the end of a thread.
void tst_NestedDeletions::turnOutsideOfTheLoop()
{
    const QPointer<QObject> object = new QObject;
    bool survived = false;
    {
        const Dispatcher::Turn turn;
        inATurn([&] { Dispatcher::deleteLater(object); });
        runALoop();
        survived = object;
    }
    QVERIFY(survived);
    QVERIFY(!object);
}

// Nothing might wake it for long.
void tst_NestedDeletions::turnDoesNotSleepBeforeItDeletes()
{
    const QPointer<QObject> object = new QObject;
    QVERIFY(!sleepsInATurn([&] { Dispatcher::deleteLater(object); }));
    QVERIFY(!object);
}

// It deletes nothing itself. A loop that does not sleep would take the whole processor.
void tst_NestedDeletions::nestedTurnSleepsBeforeTheOuterOneDeletes()
{
    bool sleeps = false;
    const QPointer<QObject> object = new QObject;
    inATurn([&] {
        Dispatcher::deleteLater(object);
        sleeps = sleepsInATurn([] {});
    });
    QVERIFY(sleeps);
    QVERIFY(!object);
}

void tst_NestedDeletions::otherDispatchers()
{
    bool nested = true;
    QPointer<QObject> object;
    const std::unique_ptr<QThread> thread(QThread::create([&] {
        const Dispatcher::Turn turn;
        QEventLoop loop;
        object = new QObject;
        QMetaObject::invokeMethod(
                object,
                [&] {
                    nested = Dispatcher::isInTurn();
                    Dispatcher::deleteLater(object);
                    loop.quit();
                },
                Qt::QueuedConnection);
        loop.exec();
    }));
    thread->start();
    QVERIFY(thread->wait());
    QVERIFY(!nested);
    QVERIFY(!object);
}

int main(int argc, char *argv[])
{
    QCoreApplication::setEventDispatcher(Dispatcher::create().release());
    const QCoreApplication application(argc, argv);
    tst_NestedDeletions test;
    return QTest::qExec(&test, argc, argv);
}

#include "tst_nesteddeletions.moc"
