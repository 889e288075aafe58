// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "dispatchercontract.h"
#include "dispatchertest.h"

#include <QtCore/QTemporaryFile>

#include <random>
#include <vector>

using namespace dispatchertest;

// Descriptors that are closed or reused, or that are no sockets.
class tst_DispatcherDescriptors : public DispatcherContract
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase_data() { addRows(); }
    void initTestCase() { prepare(); }
    void init() { begin(); }

    void closedBeforeDisabled();
    void numberReusedAfterClose();
    void numberReusedInSlot();
    void fileReturnsUnderItsNumber();
    void regularFileIsAlwaysReady();
    void invalidDescriptorIsDisabled();
    void postedEventsAmongReadySockets();
    void randomUse();
};

void tst_DispatcherDescriptors::closedBeforeDisabled()
{
    inThread([] {
        SocketPair pair;
        int activations = 0;
        auto read = std::make_unique<QSocketNotifier>(pair.a, QSocketNotifier::Read);
        auto write = std::make_unique<QSocketNotifier>(pair.a, QSocketNotifier::Write);
        onActivated(read.get(), [&] { ++activations; });
        write->setEnabled(false);
        pair.send();
        pair.a.reset();
        read.reset();
        write.reset();
        settle();
        QCOMPARE(activations, 0);
    });
}

// A descriptor is closed too early, and another socket gets its number.
void tst_DispatcherDescriptors::numberReusedAfterClose()
{
    inThread([] {
        SocketPair old;
        const int number = old.a;
        auto oldNotifier = std::make_unique<QSocketNotifier>(number, QSocketNotifier::Read);
        onActivated(oldNotifier.get(), [] { QFAIL("The old socket is closed."); });
        turn();

        SocketPair pair;
        QCOMPARE(dup2(pair.a, number), number); // closes the old one
        oldNotifier.reset();
        int activations = 0;
        QSocketNotifier notifier(number, QSocketNotifier::Read);
        onActivated(&notifier, [&] {
            ++activations;
            pair.receive();
        });
        pair.send();
        QVERIFY(turnUntil([&] { return activations == 1; }));
        notifier.setEnabled(false);
        notifier.setEnabled(true);
        pair.send();
        QVERIFY(turnUntil([&] { return activations == 2; }));

        // Also with the same notifier, and with a second notifier of another type.
        QSocketNotifier write(number, QSocketNotifier::Write);
        write.setEnabled(false);
        const SocketPair next;
        QCOMPARE(dup2(next.a, number), number);
        bool written = false;
        onActivated(&write, [&] {
            written = true;
            write.setEnabled(false);
        });
        write.setEnabled(true);
        QVERIFY(turnUntil([&] { return written; }));
        notifier.disconnect();
        onActivated(&notifier, [&] {
            ++activations;
            next.receive();
        });
        next.send();
        QVERIFY(turnUntil([&] { return activations == 3; }));
    });
}

void tst_DispatcherDescriptors::numberReusedInSlot()
{
    inThread([] {
        // Both sockets are ready. The first slot replaces the other socket, under the same number.
        SocketPair pairs[2];
        std::unique_ptr<QSocketNotifier> notifiers[2];
        int activations = 0;
        for (int i = 0; i < 2; ++i) {
            notifiers[i] = std::make_unique<QSocketNotifier>(pairs[i].a, QSocketNotifier::Read);
            onActivated(notifiers[i].get(), [&, i] {
                ++activations;
                pairs[i].receive();
                const int other = 1 - i;
                notifiers[other].reset();
                SocketPair fresh;
                QCOMPARE(dup2(fresh.a, pairs[other].a), int(pairs[other].a));
                pairs[other].b = std::move(fresh.b);
                notifiers[other] =
                        std::make_unique<QSocketNotifier>(pairs[other].a, QSocketNotifier::Read);
                onActivated(notifiers[other].get(), [&, other] {
                    ++activations;
                    pairs[other].receive();
                });
            });
            pairs[i].send();
        }
        settle();
        QCOMPARE(activations, 1); // the new socket has received nothing
        for (const SocketPair &pair : pairs)
            pair.send();
        QVERIFY(turnUntil([&] { return activations >= 2; }));
    });
}

// A second descriptor keeps the file open. It is then duplicated to the old number.
void tst_DispatcherDescriptors::fileReturnsUnderItsNumber()
{
    inThread([] {
        const SocketPair pair;
        const Fd copy(dup(pair.a));
        auto notifier = std::make_unique<QSocketNotifier>(pair.a, QSocketNotifier::Read);
        turn();
        close(pair.a);
        notifier.reset();
        QCOMPARE(dup2(copy, pair.a), int(pair.a));

        bool activated = false;
        notifier = std::make_unique<QSocketNotifier>(pair.a, QSocketNotifier::Read);
        onActivated(notifier.get(), [&] {
            activated = true;
            pair.receive();
        });
        pair.send();
        QVERIFY(turnUntil([&] { return activated; }));
    });
}

void tst_DispatcherDescriptors::regularFileIsAlwaysReady()
{
    inThread([] {
        QTemporaryFile file;
        QVERIFY(file.open());
        int reads = 0;
        int writes = 0;
        QSocketNotifier read(file.handle(), QSocketNotifier::Read);
        QSocketNotifier write(file.handle(), QSocketNotifier::Write);
        QSocketNotifier exception(file.handle(), QSocketNotifier::Exception);
        onActivated(&read, [&] { ++reads; });
        onActivated(&write, [&] { ++writes; });
        onActivated(&exception, [] { QFAIL("There is nothing urgent in a file."); });
        QVERIFY(turnUntil([&] { return reads >= 3 && writes >= 3; }));

        read.setEnabled(false);
        write.setEnabled(false);
        const int before = reads + writes;
        settle(); // the exception notifier does not keep the loop busy
        QCOMPARE(reads + writes, before);
    });
}

void tst_DispatcherDescriptors::invalidDescriptorIsDisabled()
{
    inThread([] {
        SocketPair pair;
        const int number = pair.a;
        pair.a.reset();
        QTest::ignoreMessage(QtWarningMsg,
                             expression("^QSocketNotifier: Invalid socket .* '?Read'?, disabling"));
        QTest::ignoreMessage(
                QtWarningMsg,
                expression("^QSocketNotifier: Invalid socket .* '?Write'?, disabling"));
        QSocketNotifier read(number, QSocketNotifier::Read);
        QSocketNotifier write(number, QSocketNotifier::Write);
        QVERIFY(read.isEnabled());
        turn();
        QVERIFY(!read.isEnabled());
        QVERIFY(!write.isEnabled());
        QVERIFY(!turn());

        SocketPair fresh;
        QCOMPARE(dup2(fresh.a, number), number);
        pair.a = Fd(number);
        pair.b = std::move(fresh.b);
        bool activated = false;
        onActivated(&read, [&] {
            activated = true;
            pair.receive();
        });
        read.setEnabled(true);
        pair.send();
        QVERIFY(turnUntil([&] { return activated; }));
    });
}

// There are always more ready sockets than one turn serves.
void tst_DispatcherDescriptors::postedEventsAmongReadySockets()
{
    inThread([] {
        constexpr int Count = 1500;
        std::vector<SocketPair> pairs(Count);
        std::vector<std::unique_ptr<QSocketNotifier>> notifiers;
        std::vector<int> activations(Count, 0);
        for (size_t i = 0; i < Count; ++i) {
            notifiers.push_back(
                    std::make_unique<QSocketNotifier>(pairs[i].a, QSocketNotifier::Read));
            onActivated(notifiers.back().get(), [&, i] { ++activations[i]; });
            pairs[i].send();
        }
        QObject object;
        int posted = 0;
        std::function<void()> post = [&] {
            ++posted;
            QMetaObject::invokeMethod(&object, post, Qt::QueuedConnection);
        };
        post();
        QTimer timer;
        int timeouts = 0;
        connect(&timer, &QTimer::timeout, &object, [&] { ++timeouts; });
        timer.start(0);

        constexpr int Turns = 60;
        for (int i = 0; i < Turns; ++i)
            turn();
        QVERIFY(posted >= Turns);
        QVERIFY(timeouts >= Turns / 2);
        const auto [least, most] = std::minmax_element(activations.begin(), activations.end());
        QVERIFY(*least >= Turns / 5);
        QVERIFY2(*most - *least <= 2,
                 qPrintable(QStringLiteral("%1 to %2").arg(*least).arg(*most)));
    });
}

// Has a fixed seed. The test checks that no notifier is activated without reason. The sanitizers
// check the rest.
void tst_DispatcherDescriptors::randomUse()
{
    inThread([] {
        constexpr size_t Count = 40;
        std::mt19937 random(4711);
        const auto below = [&](unsigned limit) { return size_t(random() % limit); };
        std::vector<SocketPair> pairs(Count);
        std::vector<std::unique_ptr<QSocketNotifier>> notifiers(Count);
        int depth = 0;
        int activations = 0;

        std::function<void(size_t)> renew;
        const std::function<void()> step = [&] {
            const size_t i = below(Count);
            switch (below(6)) {
            case 0:
                notifiers[i].reset();
                break;
            case 1:
                renew(i);
                break;
            case 2:
                if (notifiers[i])
                    notifiers[i]->setEnabled(!notifiers[i]->isEnabled());
                break;
            case 3:
                if (depth < 4) {
                    ++depth;
                    turn();
                    --depth;
                }
                break;
            default:
                pairs[i].send();
            }
        };
        renew = [&](size_t i) {
            notifiers[i].reset();
            if (below(2) == 0)
                pairs[i] = SocketPair(); // usually with the numbers of an earlier pair
            notifiers[i] = std::make_unique<QSocketNotifier>(pairs[i].a, QSocketNotifier::Read);
            onActivated(notifiers[i].get(), [&, i] {
                ++activations;
                pairs[i].receive();
                step();
            });
        };

        QTimer timer;
        int beats = 0;
        connect(&timer, &QTimer::timeout, &timer, [&] {
            ++beats;
            for (int i = 0; i < 5; ++i)
                step();
        });
        timer.start(0);
        QVERIFY(turnUntil([&] { return beats >= 3000; }));
        QVERIFY(activations > 1000);
    });
}

QTEST_GUILESS_MAIN(tst_DispatcherDescriptors)
#include "tst_dispatcherdescriptors.moc"
