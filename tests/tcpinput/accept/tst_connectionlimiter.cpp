// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "tcpinput/accept/connectionlimiter.h"
#include "tcpinput/accept/tokenbucket.h"
#include "tests/kit/hangguard.h"

#include <QtTest/QSignalSpy>
#include <QtTest/QTest>

#include <thread>
#include <vector>

using namespace std::chrono_literals;
using namespace Qt::StringLiterals;

class tst_ConnectionLimiter : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void bucketBeginsFull();
    void bucketFillsInTime();
    void bucketIsNeverFullerThanItsDepth();
    void withoutLimitsNothingCounts();
    void fullUntilOneHasGone();
    void goneInAnotherThread();
    void tellsOfTheLimitOnceAMinute();
    void handshakesCount();
    void rateIsReached_data();
    void rateIsReached();
    void countsByAddress_data();
    void countsByAddress();
    void exemptAddressesDoNotCount();
    void placesOutliveTheLimiter();

private:
    static AcceptLimits limits(int connections, int perAddress = 0)
    {
        AcceptLimits values;
        values.connections = connections;
        values.connectionsPerAddress = perAddress;
        return values;
    }
    static Acceptance from(const QString &peer)
    {
        Acceptance acceptance;
        acceptance.endpoints.peer = QHostAddress(peer);
        acceptance.endpoints.peerPort = 4711;
        return acceptance;
    }
};

void tst_ConnectionLimiter::bucketBeginsFull()
{
    const TokenBucket::Time begin{};
    TokenBucket bucket(10, 3);
    for (int i = 0; i < 3; ++i) {
        QVERIFY(bucket.hasToken(begin));
        bucket.take(begin);
    }
    QVERIFY(!bucket.hasToken(begin));
}

void tst_ConnectionLimiter::bucketFillsInTime()
{
    TokenBucket::Time now{1h};
    TokenBucket bucket(10, 1);
    bucket.take(now);
    QVERIFY(!bucket.hasToken(now + 99ms));
    QVERIFY(bucket.hasToken(now + 101ms));
    bucket.take(now + 101ms);
    bucket.take(now + 101ms); // one too many
    QVERIFY(!bucket.hasToken(now + 250ms));
    QVERIFY(bucket.hasToken(now + 302ms));
}

void tst_ConnectionLimiter::bucketIsNeverFullerThanItsDepth()
{
    TokenBucket::Time now{1h};
    TokenBucket bucket(1000, 2);
    now += 24h;
    for (int i = 0; i < 2; ++i) {
        QVERIFY(bucket.hasToken(now));
        bucket.take(now);
    }
    QVERIFY(!bucket.hasToken(now));
}

void tst_ConnectionLimiter::withoutLimitsNothingCounts()
{
    ConnectionLimiter limiter;
    Acceptance acceptance = from(u"192.0.2.1"_s);
    limiter.enter(acceptance);
    QVERIFY(limiter.keeps(acceptance));
    QVERIFY(limiter.mayAccept(1000000));
    QVERIFY(acceptance.places.empty());
    QVERIFY(limiter.status().isNull());
}

void tst_ConnectionLimiter::fullUntilOneHasGone()
{
    ConnectionLimiter limiter;
    limiter.setLimits(limits(2));
    std::vector<Acceptance> open(2);
    limiter.enter(open[0]);
    QVERIFY(limiter.mayAccept(0));
    QCOMPARE(limiter.status(), u"Limits: 1 connections open, 0 refused\r\n"_s);
    limiter.enter(open[1]);
    QVERIFY(!limiter.mayAccept(0));
    QCOMPARE(limiter.status(), u"Limits: 2 connections open, 0 refused, accepting paused\r\n"_s);
    const Acceptance copy = open[1]; // each copy keeps the place
    open.pop_back();
    QVERIFY(!limiter.mayAccept(0));
    open.pop_back();
    QVERIFY(limiter.mayAccept(0));
}

void tst_ConnectionLimiter::goneInAnotherThread()
{
    constexpr int Connections = 1000;
    ConnectionLimiter limiter;
    limiter.setLimits(limits(Connections, Connections));
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i) {
        std::vector<Acceptance> open;
        for (int n = 0; n < Connections / 4; ++n) {
            open.push_back(from(u"192.0.2.%1"_s.arg(n % 7)));
            limiter.enter(open.back());
            QVERIFY(limiter.keeps(open.back()));
        }
        threads.emplace_back([all = std::move(open)]() mutable { all.clear(); });
    }
    for (std::thread &thread : threads)
        thread.join();
    QCOMPARE(limiter.status(), u"Limits: 0 connections open, 0 refused\r\n"_s);
}

void tst_ConnectionLimiter::tellsOfTheLimitOnceAMinute()
{
    constexpr int MinuteMs = 100;
    ConnectionLimiter limiter(MinuteMs);
    const QSignalSpy full(&limiter, &ConnectionLimiter::full);
    const QSignalSpy fullNoMore(&limiter, &ConnectionLimiter::fullNoMore);
    limiter.setLimits(limits(1));
    for (int episode = 1; episode <= 2; ++episode) {
        for (int i = 0; i < 3; ++i) {
            Acceptance open;
            limiter.enter(open);
            QVERIFY(!limiter.mayAccept(0));
            open = {};
            QVERIFY(limiter.mayAccept(0));
        }
        QTRY_COMPARE_WITH_TIMEOUT(fullNoMore.size(), episode, HangGuardMs);
        QCOMPARE(full.size(), episode);
        QCOMPARE(full.last(), QVariantList{1});
    }
}

void tst_ConnectionLimiter::handshakesCount()
{
    ConnectionLimiter limiter;
    AcceptLimits values;
    values.handshakes = 3;
    limiter.setLimits(values);
    QVERIFY(limiter.mayAccept(2));
    QVERIFY(!limiter.mayAccept(3));
    QVERIFY(limiter.mayAccept(0));
}

void tst_ConnectionLimiter::rateIsReached_data()
{
    QTest::addColumn<int>("perSecond");
    QTest::addColumn<int>("burst");
    QTest::newRow("one") << 1 << 0;
    QTest::newRow("some") << 30 << 5;
    QTest::newRow("small burst") << 1000 << 1;
    QTest::newRow("very many") << 100000 << 1;
}

// The limiter is asked every 10 ms, for ten seconds.
void tst_ConnectionLimiter::rateIsReached()
{
    QFETCH(int, perSecond);
    QFETCH(int, burst);
    ConnectionLimiter limiter;
    AcceptLimits values;
    values.perSecond = perSecond;
    values.burst = burst;
    limiter.setLimits(values);
    ConnectionLimiter::Time now{1h};
    int accepted = 0;
    for (int look = 0; look <= 1000; ++look, now += 10ms) {
        while (limiter.mayAccept(0, now)) {
            Acceptance acceptance;
            limiter.enter(acceptance, now);
            ++accepted;
        }
    }
    const int atFirst = std::max({burst > 0 ? burst : perSecond, perSecond / 100, 1});
    QVERIFY2(accepted <= atFirst + 10 * perSecond && accepted >= 10 * perSecond - 1,
             qPrintable(QString::number(accepted)));
}

void tst_ConnectionLimiter::countsByAddress_data()
{
    QTest::addColumn<QString>("one");
    QTest::addColumn<QString>("other");
    QTest::addColumn<int>("ipv4Bits");
    QTest::addColumn<int>("ipv6Bits");
    QTest::addColumn<bool>("same");
    const auto row = [](const char *name, const char *one, const char *other, int ipv4, int ipv6,
                        bool same) {
        QTest::newRow(name) << QString::fromLatin1(one) << QString::fromLatin1(other) << ipv4
                            << ipv6 << same;
    };
    row("same", "192.0.2.1", "192.0.2.1", 32, 64, true);
    row("neighbours", "192.0.2.1", "192.0.2.0", 32, 64, false);
    row("a network of two", "192.0.2.1", "192.0.2.0", 31, 64, true);
    row("the next of two", "192.0.2.1", "192.0.2.2", 31, 64, false);
    row("first bit", "192.0.2.1", "255.0.2.1", 1, 64, true);
    row("other first bit", "192.0.2.1", "10.0.2.1", 1, 64, false);
    row("mapped", "192.0.2.1", "::ffff:192.0.2.1", 32, 64, true);
    row("one subnet", "2001:db8::1", "2001:db8::ffff:ffff:ffff:ffff", 32, 64, true);
    row("the next subnet", "2001:db8::1", "2001:db8:0:1::1", 32, 64, false);
    row("IPv6, whole", "2001:db8::1", "2001:db8::2", 32, 128, false);
    row("a bit within a byte", "2001:db8:8000::", "2001:db8:f000::", 32, 33, true);
    row("not the same kind", "0.0.0.1", "::1", 1, 1, false);
}

void tst_ConnectionLimiter::countsByAddress()
{
    QFETCH(QString, one);
    QFETCH(QString, other);
    QFETCH(int, ipv4Bits);
    QFETCH(int, ipv6Bits);
    QFETCH(bool, same);
    ConnectionLimiter limiter;
    AcceptLimits values = limits(0, 1);
    values.ipv4Bits = ipv4Bits;
    values.ipv6Bits = ipv6Bits;
    limiter.setLimits(values);
    const QSignalSpy refused(&limiter, &ConnectionLimiter::refused);
    Acceptance first = from(one);
    QVERIFY(limiter.keeps(first));
    Acceptance second = from(other);
    QCOMPARE(limiter.keeps(second), !same);
    QCOMPARE(limiter.refusedInAll(), same ? 1U : 0U);
    if (same)
        QCOMPARE(refused.first(),
                 QVariantList({quint64(1), QHostAddress(other).toString() + u":4711"_s}));
    first = {};
    QVERIFY(!same || limiter.keeps(second));
}

void tst_ConnectionLimiter::exemptAddressesDoNotCount()
{
    ConnectionLimiter limiter;
    AcceptLimits values = limits(0, 1);
    values.exempt = {*Network::from(u"192.0.2.0/24"_s)};
    limiter.setLimits(values);
    std::vector<Acceptance> open;
    for (int i = 0; i < 3; ++i) {
        open.push_back(from(u"192.0.2.1"_s));
        QVERIFY(limiter.keeps(open.back()));
    }
    open.push_back(from(u"198.51.100.1"_s));
    QVERIFY(limiter.keeps(open.back()));
    open.push_back(from(u"198.51.100.1"_s));
    QVERIFY(!limiter.keeps(open.back()));
}

void tst_ConnectionLimiter::placesOutliveTheLimiter()
{
    Acceptance acceptance = from(u"192.0.2.1"_s);
    {
        ConnectionLimiter limiter;
        limiter.setLimits(limits(1, 1));
        limiter.enter(acceptance);
        QVERIFY(limiter.keeps(acceptance));
    }
    acceptance = {}; // AddressSanitizer would report a use after free
    QVERIFY(acceptance.places.empty());
}

QTEST_GUILESS_MAIN(tst_ConnectionLimiter)
#include "tst_connectionlimiter.moc"
