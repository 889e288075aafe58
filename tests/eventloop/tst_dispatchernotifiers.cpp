// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "dispatchercontract.h"
#include "dispatchertest.h"

#include <QtCore/QPointer>

#include <vector>

#include <arpa/inet.h>
#include <netinet/in.h>

using namespace dispatchertest;

namespace {

// Fills the socket's buffer: a is not writable until b reads.
void fill(const SocketPair &pair)
{
    const QByteArray block(65536, 'x');
    while (write(pair.a, block.constData(), size_t(block.size())) > 0) {}
}

void drain(const SocketPair &pair)
{
    QByteArray block(65536, Qt::Uninitialized);
    while (read(pair.b, block.data(), size_t(block.size())) > 0) {}
}

// A pair of connected TCP sockets. Other kinds have no urgent data.
SocketPair tcpPair()
{
    const Fd listener(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof(address);
    auto *generic = reinterpret_cast<sockaddr *>(&address);
    if (bind(listener, generic, size) != 0 || listen(listener, 1) != 0
        || getsockname(listener, generic, &size) != 0)
        qFatal("listening failed");

    SocketPair pair;
    pair.a = Fd(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (connect(pair.a, generic, size) != 0)
        qFatal("connect failed");
    pair.b = Fd(accept4(listener, nullptr, nullptr, SOCK_CLOEXEC));
    return pair;
}

} // namespace

// Socket notifiers: when they are activated, and what their slots may do.
class tst_DispatcherNotifiers : public DispatcherContract
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase_data() { addRows(); }
    void initTestCase() { prepare(); }
    void init() { begin(); }

    void readNotifier();
    void writeNotifier();
    void exceptionNotifier();
    void allKindsOnOneDescriptor();
    void hangUpActivatesAll();
    void disabledInOwnSlot();
    void deletedInOwnSlot();
    void removedInAnothersSlot();
    void otherKindRemovedInSlot();
    void oneKindRemovedInAnothersSlot();
    void addedInSlot();
    void nestedLoopInSlot();
    void nestedLoopRemovesReadyNotifier();
    void secondNotifierOfOneKind();
};

void tst_DispatcherNotifiers::readNotifier()
{
    inThread([] {
        const SocketPair pair;
        int activations = 0;
        QSocketNotifier notifier(pair.a, QSocketNotifier::Read);
        onActivated(&notifier, [&](QSocketDescriptor socket, QSocketNotifier::Type type) {
            QCOMPARE(int(socket), int(pair.a));
            QCOMPARE(type, QSocketNotifier::Read);
            ++activations;
        });
        turn();
        QCOMPARE(activations, 0);

        // The notifier is activated as long as there are unread bytes.
        pair.send();
        pair.send();
        QVERIFY(turnUntil([&] { return activations == 3; }));
        pair.receive();
        QVERIFY(turnUntil([&] { return activations == 4; }));
        pair.receive();
        settle();
        QCOMPARE(activations, 4);

        notifier.setEnabled(false);
        pair.send();
        settle();
        QCOMPARE(activations, 4);
        notifier.setEnabled(true);
        QVERIFY(turnUntil([&] { return activations == 5; }));
    });
}

void tst_DispatcherNotifiers::writeNotifier()
{
    inThread([] {
        const SocketPair pair;
        int activations = 0;
        QSocketNotifier notifier(pair.a, QSocketNotifier::Write);
        onActivated(&notifier, [&] { ++activations; });
        QVERIFY(turnUntil([&] { return activations == 2; }));

        fill(pair);
        settle();
        const int before = activations;
        settle();
        QCOMPARE(activations, before);
        drain(pair);
        QVERIFY(turnUntil([&] { return activations > before; }));
    });
}

void tst_DispatcherNotifiers::exceptionNotifier()
{
    inThread([] {
        const SocketPair pair = tcpPair();
        QByteArray urgent;
        QSocketNotifier notifier(pair.a, QSocketNotifier::Exception);
        onActivated(&notifier, [&](QSocketDescriptor, QSocketNotifier::Type type) {
            QCOMPARE(type, QSocketNotifier::Exception);
            char c = 0;
            QCOMPARE(recv(pair.a, &c, 1, MSG_OOB), ssize_t(1));
            urgent += c;
        });
        pair.send(); // ordinary data must not activate it
        settle();
        QCOMPARE(urgent, QByteArray());
        QCOMPARE(::send(pair.b, "!", 1, MSG_OOB), ssize_t(1));
        QVERIFY(turnUntil([&] { return !urgent.isEmpty(); }));
        QCOMPARE(urgent, QByteArray("!"));
    });
}

void tst_DispatcherNotifiers::allKindsOnOneDescriptor()
{
    inThread([] {
        const SocketPair pair = tcpPair();
        QByteArray trace;
        QSocketNotifier write(pair.a, QSocketNotifier::Write);
        QSocketNotifier exception(pair.a, QSocketNotifier::Exception);
        QSocketNotifier read(pair.a, QSocketNotifier::Read);
        onActivated(&read, [&] {
            trace += 'r';
            read.setEnabled(false);
        });
        onActivated(&write, [&] {
            trace += 'w';
            write.setEnabled(false);
        });
        onActivated(&exception, [&] {
            trace += 'e';
            exception.setEnabled(false);
        });

        QVERIFY(turnUntil([&] { return !trace.isEmpty(); }));
        QCOMPARE(trace, QByteArray("w"));
        pair.send();
        QVERIFY(turnUntil([&] { return trace.size() == 2; }));
        QCOMPARE(trace, QByteArray("wr"));
        QCOMPARE(::send(pair.b, "!", 1, MSG_OOB), ssize_t(1));
        QVERIFY(turnUntil([&] { return trace.size() == 3; }));
        QCOMPARE(trace, QByteArray("wre"));
        settle();
        QCOMPARE(trace, QByteArray("wre"));

        // All three types at once.
        write.setEnabled(true);
        exception.setEnabled(true);
        read.setEnabled(true);
        QVERIFY(turnUntil([&] { return trace.size() == 6; }));
        QCOMPARE(QByteArray(trace.right(3)).count('r'), 1);
        QCOMPARE(QByteArray(trace.right(3)).count('w'), 1);
        QCOMPARE(QByteArray(trace.right(3)).count('e'), 1);
    });
}

void tst_DispatcherNotifiers::hangUpActivatesAll()
{
    inThread([] {
        for (const auto type :
             {QSocketNotifier::Read, QSocketNotifier::Write, QSocketNotifier::Exception}) {
            SocketPair pair;
            int activations = 0;
            fill(pair); // so that the socket is not writable
            QSocketNotifier notifier(pair.a, type);
            onActivated(&notifier, [&] {
                ++activations;
                notifier.setEnabled(false);
            });
            settle();
            QCOMPARE(activations, 0);
            pair.b.reset();
            if (isGlib() && type != QSocketNotifier::Read)
                continue; // GLib's dispatcher watches hang-ups only for Read notifiers
            QVERIFY(turnUntil([&] { return activations == 1; }));
        }
    });
}

void tst_DispatcherNotifiers::disabledInOwnSlot()
{
    inThread([] {
        const SocketPair pair;
        int activations = 0;
        QSocketNotifier notifier(pair.a, QSocketNotifier::Read);
        onActivated(&notifier, [&] {
            ++activations;
            notifier.setEnabled(false);
            if (activations == 2)
                notifier.setEnabled(true);
        });
        pair.send();
        settle();
        QCOMPARE(activations, 1);
        notifier.setEnabled(true);
        QVERIFY(turnUntil([&] { return activations == 3; }));
        settle();
        QCOMPARE(activations, 3);
    });
}

void tst_DispatcherNotifiers::deletedInOwnSlot()
{
    inThread([] {
        const SocketPair pair;
        QPointer<QSocketNotifier> read(new QSocketNotifier(pair.a, QSocketNotifier::Read));
        QPointer<QSocketNotifier> write(new QSocketNotifier(pair.a, QSocketNotifier::Write));
        onActivated(read, [&] { delete read; });
        onActivated(write, [&] { delete write; });
        pair.send();
        QVERIFY(turnUntil([&] { return !read && !write; }));
        turn();
    });
}

// Two sockets are ready in one turn. The first slot removes the other socket's notifier.
void tst_DispatcherNotifiers::removedInAnothersSlot()
{
    inThread([] {
        const SocketPair pairs[2];
        int activations = 0;
        std::unique_ptr<QSocketNotifier> notifiers[2];
        for (int i = 0; i < 2; ++i) {
            notifiers[i] = std::make_unique<QSocketNotifier>(pairs[i].a, QSocketNotifier::Read);
            onActivated(notifiers[i].get(), [&, i] {
                ++activations;
                pairs[i].receive();
                notifiers[1 - i].reset();
            });
            pairs[i].send();
        }
        settle();
        QCOMPARE(activations, 1);
    });
}

void tst_DispatcherNotifiers::otherKindRemovedInSlot()
{
    inThread([] {
        const SocketPair pair;
        int activations = 0;
        std::unique_ptr<QSocketNotifier> read;
        std::unique_ptr<QSocketNotifier> write;
        read = std::make_unique<QSocketNotifier>(pair.a, QSocketNotifier::Read);
        write = std::make_unique<QSocketNotifier>(pair.a, QSocketNotifier::Write);
        onActivated(read.get(), [&] {
            ++activations;
            pair.receive();
            write.reset();
        });
        onActivated(write.get(), [&] {
            ++activations;
            write->setEnabled(false);
            read.reset();
        });
        pair.send();
        settle();
        QCOMPARE(activations, 1);
        QVERIFY(!read != !write);
    });
}

// As before, but each socket has a notifier for reading and one for writing. The slot removes only
// the reading one of the other socket. The writing one is ready, too, and must be activated.
void tst_DispatcherNotifiers::oneKindRemovedInAnothersSlot()
{
    inThread([] {
        const SocketPair pairs[2];
        std::unique_ptr<QSocketNotifier> read[2];
        std::unique_ptr<QSocketNotifier> write[2];
        int reads = 0;
        int writes = 0;
        for (int i = 0; i < 2; ++i) {
            read[i] = std::make_unique<QSocketNotifier>(pairs[i].a, QSocketNotifier::Read);
            write[i] = std::make_unique<QSocketNotifier>(pairs[i].a, QSocketNotifier::Write);
            onActivated(read[i].get(), [&, i] {
                ++reads;
                pairs[i].receive();
                read[1 - i].reset();
            });
            onActivated(write[i].get(), [&, i] {
                ++writes;
                write[i]->setEnabled(false);
            });
            pairs[i].send();
        }
        QVERIFY(turnUntil([&] { return writes == 2; }));
        settle();
        QCOMPARE(reads, 1);
        QCOMPARE(writes, 2);
    });
}

void tst_DispatcherNotifiers::addedInSlot()
{
    inThread([] {
        const SocketPair first;
        const SocketPair second;
        std::unique_ptr<QSocketNotifier> added;
        std::unique_ptr<QSocketNotifier> write;
        int activations = 0;
        QSocketNotifier notifier(first.a, QSocketNotifier::Read);
        onActivated(&notifier, [&] {
            first.receive();
            added = std::make_unique<QSocketNotifier>(second.a, QSocketNotifier::Read);
            onActivated(added.get(), [&] {
                second.receive();
                ++activations;
            });
            write = std::make_unique<QSocketNotifier>(first.a, QSocketNotifier::Write);
            onActivated(write.get(), [&] {
                write->setEnabled(false);
                ++activations;
            });
        });
        second.send();
        first.send();
        QVERIFY(turnUntil([&] { return activations == 2; }));
    });
}

void tst_DispatcherNotifiers::nestedLoopInSlot()
{
    inThread([] {
        constexpr int Count = 20;
        std::vector<SocketPair> pairs(Count);
        std::vector<std::unique_ptr<QSocketNotifier>> notifiers;
        int activations = 0;
        int completed = 0;
        for (const SocketPair &pair : pairs) {
            notifiers.push_back(std::make_unique<QSocketNotifier>(pair.a, QSocketNotifier::Read));
            onActivated(notifiers.back().get(), [&] {
                pair.receive(); // fails if it is activated again without need
                if (++activations < Count)
                    QVERIFY(turnUntil([&] { return activations == Count; }));
                ++completed;
            });
        }
        for (const SocketPair &pair : pairs)
            pair.send();
        QVERIFY(turnUntil([&] { return completed == Count; }));
        QCOMPARE(activations, Count);
        settle();
        QCOMPARE(activations, Count);
    });
}

void tst_DispatcherNotifiers::nestedLoopRemovesReadyNotifier()
{
    inThread([] {
        constexpr int Count = 20;
        std::vector<SocketPair> pairs(Count);
        std::vector<std::unique_ptr<QSocketNotifier>> notifiers(Count);
        int activations = 0;
        for (size_t i = 0; i < Count; ++i) {
            notifiers[i] = std::make_unique<QSocketNotifier>(pairs[i].a, QSocketNotifier::Read);
            onActivated(notifiers[i].get(), [&, i] {
                pairs[i].receive();
                if (++activations > 1)
                    return;
                // In the nested turn all others are removed. New sockets get their numbers.
                QMetaObject::invokeMethod(
                        notifiers[i].get(),
                        [&, i] {
                            for (size_t other = 0; other < Count; ++other) {
                                if (other == i)
                                    continue;
                                notifiers[other].reset();
                                pairs[other] = SocketPair();
                                notifiers[other] = std::make_unique<QSocketNotifier>(
                                        pairs[other].a, QSocketNotifier::Read);
                                onActivated(notifiers[other].get(), [&] { ++activations; });
                            }
                        },
                        Qt::QueuedConnection);
                turn();
            });
        }
        for (const SocketPair &pair : pairs)
            pair.send();
        QVERIFY(turnUntil([&] { return activations > 0; }));
        settle();
        QCOMPARE(activations, 1); // the new sockets have received nothing
    });
}

void tst_DispatcherNotifiers::secondNotifierOfOneKind()
{
    inThread([] {
        if (isGlib())
            return; // GLib's dispatcher serves both notifiers
        const SocketPair pair;
        QByteArray trace;
        QTest::ignoreMessage(QtWarningMsg, expression("Multiple socket notifiers"));
        auto first = std::make_unique<QSocketNotifier>(pair.a, QSocketNotifier::Read);
        auto second = std::make_unique<QSocketNotifier>(pair.a, QSocketNotifier::Read);
        onActivated(first.get(), [&] { trace += '1'; });
        onActivated(second.get(), [&] {
            trace += '2';
            pair.receive();
        });
        pair.send();
        QVERIFY(turnUntil([&] { return !trace.isEmpty(); }));
        QCOMPARE(trace, QByteArray("2"));

        QTest::ignoreMessage(QtWarningMsg, expression("Multiple socket notifiers"));
        first.reset(); // must not disable the second one
        pair.send();
        QVERIFY(turnUntil([&] { return trace.size() == 2; }));
        QCOMPARE(trace, QByteArray("22"));
    });
}

QTEST_GUILESS_MAIN(tst_DispatcherNotifiers)
#include "tst_dispatchernotifiers.moc"
