// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "dispatchertest.h"
#include "tests/kit/hangguard.h"

#include <QtCore/QDeadlineTimer>
#include <QtCore/QFile>
#include <QtCore/QSemaphore>

#include <array>
#include <atomic>
#include <chrono>
#include <optional>
#include <random>
#include <thread>
#include <vector>

#include <sys/syscall.h>

using namespace dispatchertest;
using namespace std::chrono_literals;

namespace {
constexpr auto Never = std::chrono::milliseconds(1h); // longer than any test
constexpr int Forever = -1; // a time-out of epoll_wait(2) or poll(2)

// Asks the kernel for the time-out, in ms, of the wait in which the thread sleeps. Nothing if the
// thread runs, or sleeps in another system call.
std::optional<int> sleepMs(pid_t threadId)
{
    QFile file(QStringLiteral("/proc/self/task/%1/syscall").arg(threadId));
    if (!file.open(QFile::ReadOnly))
        return std::nullopt;
    const QList<QByteArray> call = file.readAll().split(' '); // system call, six arguments, ...
    if (call.size() < 7)
        return std::nullopt;

    const auto argument = [&](int n) { return call.at(n).toULongLong(nullptr, 16); };
    switch (call.at(0).toInt()) {
#ifdef SYS_epoll_wait
    case SYS_epoll_wait:
#endif
    case SYS_epoll_pwait:
        return static_cast<int>(argument(4));
#ifdef SYS_poll
    case SYS_poll:
        return static_cast<int>(argument(3));
#endif
    case SYS_ppoll:
        return argument(3) == 0 ? Forever : 1;
    default:
        return std::nullopt;
    }
}

// A thread that runs an event loop.
class LoopThread : public QThread
{
public:
    using Prepare = std::function<void(QObject *context)>;

    // prepare: called in the thread, before its loop. The context lives as long as the loop runs.
    explicit LoopThread(
            std::chrono::milliseconds interval, Prepare function = [](QObject *) {})
        : prepare(std::move(function))
    {
        setEpollDispatcher(this, interval);
        start();
        prepared.acquire();
    }
    ~LoopThread() override
    {
        quit();
        wait();
    }

    void post(const std::function<void()> &event)
    {
        QMetaObject::invokeMethod(context, event, Qt::QueuedConnection);
    }

    // Whether the thread sleeps without a time-out.
    bool rests() const { return sleepMs(id) == Forever; }
    // Whether the thread sleeps with a time-out.
    bool dozes() const { return sleepMs(id).value_or(Forever) > 0; }

    // Wakes up the thread when it rests. So an interval begins, in which wake-ups are deferred.
    [[nodiscard]] bool rouse()
    {
        const auto resting = [this] { return rests(); };
        const auto dozing = [this] { return dozes(); };
        if (!QTest::qWaitFor(resting, HangGuardMs))
            return false;
        post([] {});
        return QTest::qWaitFor(dozing, HangGuardMs);
    }

protected:
    void run() override
    {
        QObject object;
        id = gettid();
        context = &object;
        prepare(context);
        prepared.release();
        exec();
    }

private:
    const Prepare prepare;
    QSemaphore prepared;
    pid_t id = 0;
    QObject *context = nullptr;
};

bool waitUntilItRests(const LoopThread &thread)
{
    return QTest::qWaitFor([&] { return thread.rests(); }, HangGuardMs);
}

bool waitUntilItDozes(const LoopThread &thread)
{
    return QTest::qWaitFor([&] { return thread.dozes(); }, HangGuardMs);
}

// Calls activated for every byte that arrives at the pair's socket a.
void notify(const SocketPair &pair, QObject *context, const std::function<void()> &activated)
{
    auto *notifier = new QSocketNotifier(pair.a, QSocketNotifier::Read, context);
    onActivated(notifier, [&pair, activated] {
        pair.receive();
        activated();
    });
}
} // namespace

/*!
    Wake-up moderation. In most of these tests the interval is longer than the test. So events that
    arrive have not waited for its end: they came at once, or together with a socket, timer or
    interrupt().
*/
class tst_WakeUpModeration : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void init() { QTest::failOnWarning(expression(".*")); }

    void restsOnceNothingComes_data();
    void restsOnceNothingComes();
    void wokenAtOnceFromRest();
    void ownEventsDeferNothing();
    void deferredEventsComeWithASocket();
    void deferredEventsComeWithATimer();
    void interruptIsNotDeferred_data();
    void interruptIsNotDeferred();
    void nestedLoop();
    void onlyLoopsAreModerated_data();
    void onlyLoopsAreModerated();
    void noWakeUpIsLostBeforeAWait();
    void bursts();
};

void tst_WakeUpModeration::initTestCase()
{
    QVERIFY2(QFile::exists(QStringLiteral("/proc/self/syscall")),
             "These tests need a kernel that tells what a thread sleeps in.");
}

void tst_WakeUpModeration::restsOnceNothingComes_data()
{
    QTest::addColumn<std::chrono::milliseconds>("interval");
    QTest::newRow("no moderation") << 0ms;
    QTest::newRow("an interval that ends") << 1ms;
}

void tst_WakeUpModeration::restsOnceNothingComes()
{
    QFETCH(std::chrono::milliseconds, interval);
    LoopThread thread(interval);
    QSemaphore handled;
    for (int i = 0; i < 20; ++i) {
        QVERIFY(waitUntilItRests(thread));
        thread.post([&] { handled.release(); });
        QVERIFY(handled.tryAcquire(1, HangGuardMs));
    }
    QVERIFY(waitUntilItRests(thread));
}

void tst_WakeUpModeration::wokenAtOnceFromRest()
{
    for (int i = 0; i < 20; ++i) {
        LoopThread thread(Never);
        QVERIFY(waitUntilItRests(thread));
        QSemaphore handled;
        thread.post([&] { handled.release(); });
        QVERIFY(handled.tryAcquire(1, HangGuardMs));
        QVERIFY(waitUntilItDozes(thread));
    }
}

// Only other threads' wake-ups are moderated, and only they begin an interval.
void tst_WakeUpModeration::ownEventsDeferNothing()
{
    const SocketPair pair;
    QSemaphore handled;
    LoopThread thread(Never, [&](QObject *context) {
        const auto post = [context](const std::function<void()> &event) {
            QMetaObject::invokeMethod(context, event, Qt::QueuedConnection);
        };
        notify(pair, context, [&, post] { // takes several turns; some of them do not ask the kernel
            post([&, post] { post([&, post] { post([&] { handled.release(); }); }); });
        });
    });
    for (int i = 0; i < 20; ++i) {
        pair.send();
        QVERIFY(handled.tryAcquire(1, HangGuardMs));
        QVERIFY(waitUntilItRests(thread));
    }
}

void tst_WakeUpModeration::deferredEventsComeWithASocket()
{
    const SocketPair pair;
    QByteArray trace; // used by the thread until it releases a semaphore
    QSemaphore activated;
    QSemaphore handled;
    LoopThread thread(Never, [&](QObject *context) {
        notify(pair, context, [&] {
            trace += 's';
            activated.release();
        });
    });
    QVERIFY(thread.rouse());
    pair.send();
    QVERIFY(activated.tryAcquire(1, HangGuardMs));
    for (int i = 0; i < 20; ++i) {
        QVERIFY(waitUntilItDozes(thread));
        trace.clear();
        for (int event = 0; event < 3; ++event) {
            thread.post([&] {
                trace += 'e';
                handled.release();
            });
        }
        pair.send();
        QVERIFY(handled.tryAcquire(3, HangGuardMs));
        QCOMPARE(trace, QByteArray("seee"));
    }
}

void tst_WakeUpModeration::deferredEventsComeWithATimer()
{
    QSemaphore beats;
    LoopThread thread(Never, [&](QObject *context) {
        auto *timer = new QTimer(context);
        connect(timer, &QTimer::timeout, context, [&] { beats.release(); });
        timer->start(20);
    });
    QSemaphore handled;
    for (int i = 0; i < 10; ++i) {
        thread.post([&] { handled.release(); });
        QVERIFY(handled.tryAcquire(1, HangGuardMs));
        QVERIFY(waitUntilItDozes(thread));
    }
    QVERIFY(beats.tryAcquire(10, HangGuardMs));
}

void tst_WakeUpModeration::interruptIsNotDeferred_data()
{
    QTest::addColumn<int>("deferred");
    QTest::newRow("alone") << 0;
    QTest::newRow("behind an event that is deferred") << 1;
}

void tst_WakeUpModeration::interruptIsNotDeferred()
{
    QFETCH(int, deferred);
    for (int i = 0; i < 20; ++i) {
        LoopThread thread(Never);
        QVERIFY(thread.rouse());
        for (int event = 0; event < deferred; ++event)
            thread.post([] {});
        QVERIFY(thread.dozes());
        thread.quit();
        QVERIFY(thread.wait(HangGuardMs));
    }
}

void tst_WakeUpModeration::nestedLoop()
{
    const SocketPair pair;
    QByteArray trace; // used by the thread until it releases the semaphore
    QSemaphore handled;
    LoopThread thread(Never,
                      [&](QObject *context) { notify(pair, context, [&] { trace += 's'; }); });
    std::atomic<QEventLoop *> inner{nullptr};
    QVERIFY(waitUntilItRests(thread));
    thread.post([&] {
        QEventLoop loop;
        inner = &loop;
        loop.exec();
        trace += 'n';
        handled.release();
    });
    QVERIFY(waitUntilItDozes(thread));
    thread.post([&] {
        trace += 'e';
        handled.release();
    });
    pair.send();
    QVERIFY(handled.tryAcquire(1, HangGuardMs));
    QCOMPARE(trace, QByteArray("se"));

    QVERIFY(waitUntilItDozes(thread));
    inner.load()->quit();
    QVERIFY(handled.tryAcquire(1, HangGuardMs));
    QCOMPARE(trace, QByteArray("sen"));
    QVERIFY(waitUntilItDozes(thread)); // now in the outer loop, in the same interval
}

void tst_WakeUpModeration::onlyLoopsAreModerated_data()
{
    QTest::addColumn<int>("flags");
    QTest::newRow("a turn by itself") << int(QEventLoop::WaitForMoreEvents);
    QTest::newRow("without notifiers")
            << int(QEventLoop::WaitForMoreEvents | QEventLoop::EventLoopExec
                   | QEventLoop::ExcludeSocketNotifiers);
}

// These turns run in a slot, while the thread's event loop is moderated.
void tst_WakeUpModeration::onlyLoopsAreModerated()
{
    QFETCH(int, flags);
    const SocketPair pair;
    bool handled = false; // the thread's only
    QSemaphore ended;
    LoopThread thread(Never, [&](QObject *context) {
        notify(pair, context, [&] {
            handled = false;
            while (!handled)
                turn(QEventLoop::ProcessEventsFlags(flags));
            ended.release();
        });
    });
    QVERIFY(thread.rouse());
    for (int i = 0; i < 10; ++i) {
        QVERIFY(waitUntilItDozes(thread));
        pair.send();
        QVERIFY(waitUntilItRests(thread));
        thread.post([&] {
            handled = true;
            dispatcher()->wakeUp(); // otherwise the turn that delivers this event would then wait
        });
        QVERIFY(ended.tryAcquire(1, HangGuardMs));
    }
}

// The critical moment: after an interval the thread has found nothing to do. It is about to rest,
// but wake-ups are still deferred.
void tst_WakeUpModeration::noWakeUpIsLostBeforeAWait()
{
    constexpr int Rounds = 20;
    std::atomic<int> posted{0};
    std::atomic<int> handled{0};
    int waits = 0; // since the thread was woken, the first one moderated; the thread's only
    LoopThread thread(5ms, [&](QObject *context) {
        connect(dispatcher(), &QAbstractEventDispatcher::aboutToBlock, context, [&, context] {
            ++waits;
            if (waits == 2)
                dispatcher()->wakeUp(); // ends this turn; the next turn will ask the kernel
            if (waits != 3)
                return;
            std::thread([&] {
                ++posted;
                QMetaObject::invokeMethod(
                        context, [&] { ++handled; }, Qt::QueuedConnection);
            }).join();
        });
    });
    QSemaphore woken;
    const QDeadlineTimer guard(HangGuardMs);
    while (posted < Rounds && !guard.hasExpired()) {
        QVERIFY(waitUntilItRests(thread));
        QCOMPARE(handled.load(), posted.load());
        thread.post([&] {
            waits = 0;
            woken.release();
        });
        QVERIFY(woken.tryAcquire(1, HangGuardMs));
    }
    QVERIFY(posted >= Rounds);
}

// Has fixed seeds. The pauses are about as long as the interval, so events come at any time in it.
void tst_WakeUpModeration::bursts()
{
    constexpr unsigned Posters = 4;
    constexpr int Bursts = 300;
    LoopThread thread(1ms);
    std::array<QSemaphore, Posters> handled;
    std::atomic<unsigned> complete{0};
    std::vector<std::thread> posters;
    for (unsigned poster = 0; poster < Posters; ++poster) {
        posters.emplace_back([&, poster] {
            std::mt19937 random(poster);
            QSemaphore &own = handled[poster];
            for (int burst = 0; burst < Bursts; ++burst) {
                const int events = 1 + int(random() % 8);
                for (int event = 0; event < events; ++event)
                    thread.post([&own] { own.release(); });
                if (!own.tryAcquire(events, HangGuardMs))
                    return;
                std::this_thread::sleep_for(std::chrono::microseconds(random() % 3000));
            }
            ++complete;
        });
    }
    for (std::thread &poster : posters)
        poster.join();
    QCOMPARE(complete.load(), Posters);
}

QTEST_GUILESS_MAIN(tst_WakeUpModeration)
#include "tst_wakeupmoderation.moc"
