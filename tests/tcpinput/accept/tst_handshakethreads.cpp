// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "tcpinput/accept/handshakethreads.h"

#include "tests/kit/hangguard.h"
#include "tests/kit/nativesocket.h"
#include "tests/kit/nofreedescriptors.h"
#include "tests/kit/processresources.h"
#include "tests/kit/testaddress.h"

#include <QtTest/QTest>

#include <utility>
#include <vector>

namespace {

constexpr int NeverMs = 24 * 60 * 60 * 1000;
const QByteArray NoTls("GET / HTTP/1.0\r\n\r\n"); // ends a handshake, without a certificate

} // namespace

// Where the handshakes of our own engine run.
class tst_HandshakeThreads : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void oneThreadForEach();
    // The last: UndefinedBehaviorSanitizer needs descriptors when it first looks at a class.
    void threadsAfterAShortage_data();
    void threadsAfterAShortage();

private:
    // Returns the device's end.
    static NativeSocket begin(HandshakeThreads &threads, SocketPair pair)
    {
        threads.begin(Descriptor(pair.accepted.release()), {}, nullptr, NeverMs);
        return std::move(pair.device);
    }
    static SocketPair pair() { return SocketPair::connected(testAddress(), testAddress()); }
};

void tst_HandshakeThreads::oneThreadForEach()
{
    const qsizetype before = runningThreads();
    int over = 0;
    HandshakeThreads threads([&over](HandshakeResult &) { ++over; });
    threads.setSize(2);
    std::vector<NativeSocket> devices;
    for (const int running : {1, 2, 2, 2}) {
        devices.push_back(begin(threads, pair()));
        QCOMPARE(runningThreads(), before + running);
    }
    QCOMPARE(threads.open(), 4);
    for (const NativeSocket &device : devices) {
        QVERIFY(device.send(NoTls));
        QVERIFY(device.ends()); // although this thread runs no event loop
    }
    QTRY_COMPARE_WITH_TIMEOUT(over, 4, HangGuardMs);
    QCOMPARE(threads.open(), 0);
    threads.drop();
    QCOMPARE(runningThreads(), before);
}

void tst_HandshakeThreads::threadsAfterAShortage_data()
{
    QTest::addColumn<bool>("drops");
    QTest::newRow("goes on") << false;
    QTest::newRow("dropped") << true;
}

// The first connection comes when no thread can be made. So this one does its handshake, but none
// of those that come later.
void tst_HandshakeThreads::threadsAfterAShortage()
{
    QFETCH(bool, drops);
    const qsizetype before = runningThreads();
    int over = 0;
    HandshakeThreads threads([&over](HandshakeResult &) { ++over; });
    threads.setSize(2);
    SocketPair first = pair();
    SocketPair second = pair();
    NativeSocket slow;
    {
        const NoFreeDescriptors none;
        const NativeSocket quick = begin(threads, std::move(first));
        QVERIFY(quick.send(NoTls));
        QTRY_COMPARE_WITH_TIMEOUT(over, 1, HangGuardMs);
        slow = begin(threads, std::move(second));
    }
    QCOMPARE(runningThreads(), before);
    for (const int running : {1, 2, 2}) {
        const NativeSocket device = begin(threads, pair());
        QCOMPARE(runningThreads(), before + running);
        QVERIFY(device.send(NoTls));
        QVERIFY(device.ends());
    }
    QTRY_COMPARE_WITH_TIMEOUT(over, 4, HangGuardMs);
    QCOMPARE(threads.open(), 1);
    if (drops) {
        threads.drop();
    } else {
        QVERIFY(slow.send(NoTls));
        QTRY_COMPARE_WITH_TIMEOUT(over, 5, HangGuardMs);
    }
    QVERIFY(slow.ends());
    QCOMPARE(threads.open(), 0);
}

QTEST_GUILESS_MAIN(tst_HandshakeThreads)
#include "tst_handshakethreads.moc"
