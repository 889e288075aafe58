// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "tests/endtoend/limitstest.h"

using namespace limitstest;

/*!
    How paused connections end, through the loaded library.
*/
class tst_LimitEnds : public LimitsTest
{
    Q_OBJECT

private Q_SLOTS:
    void init() { begin(); }
    void cleanup() { end(); }

    void stalledTimeout_data() { transports(); }
    void stalledTimeout();
    void pauseIsNoIdleTime();
    void endOfAPausedConnection_data() { transports(); }
    void endOfAPausedConnection();
    void resetOfAPausedConnection();
    void stopWhilePaused_data() { transports(); }
    void stopWhilePaused();
    void destructionWhilePaused_data() { transports(); }
    void destructionWhilePaused();
};

void tst_LimitEnds::stalledTimeout()
{
    QFETCH(int, tls);
    start({{QStringLiteral("connectionBuffer"), 64 * KiB}, {QStringLiteral("stalledTimeout"), 1}});
    Sender sender(port, tls, 40 * MiB);
    QVERIFY(serve([&] { return !streams.isEmpty() && !only().end.isNull(); }));
    QCOMPARE(only().end, QStringLiteral("limit"));
    QVERIFY(only().intact);
    const QStringList lines = takeLog().filter(QStringLiteral("nothing consumed"));
    QCOMPARE(lines.size(), 1);
    QVERIFY(lines.first().startsWith(QStringLiteral("W: TcpClient2 (tcp2:")));
    QVERIFY(lines.first().endsWith(
            QStringLiteral("): paused for 1 s and nothing consumed, closing")));
    sender.stays = false;
}

void tst_LimitEnds::pauseIsNoIdleTime()
{
    start({{QStringLiteral("connectionBuffer"), 64}}, {{QStringLiteral("timeout"), 1}});
    Sender sender(port, 0, 200);
    QVERIFY(serve([&] { return !streams.isEmpty() && only().size >= 64; }));
    const int records = only().records;
    QTest::qWait(2500); // 64 bytes are too few to be offered again meanwhile
    QCOMPARE(only().records, records);
    QVERIFY(only().end.isNull());
    consumes = true;
    discardAll();
    QVERIFY(serve([&] { return only().end == QLatin1String("idle"); }));
    QCOMPARE(only().size, 200);
    QVERIFY(only().intact);
    sender.stays = false;
}

void tst_LimitEnds::endOfAPausedConnection()
{
    QFETCH(int, tls);
    constexpr qsizetype Bytes = 48 * KiB; // the kernel has room for them
    start({{QStringLiteral("connectionBuffer"), 16 * KiB}});
    Sender sender(port, tls, Bytes);
    QVERIFY(serve([&] { return !streams.isEmpty() && sender.finished; }));
    QVERIFY(serve([&] { return isQuiet(); }));
    QVERIFY(tls != 0 || only().size < Bytes); // with TLS, Qt decrypts all of them in advance
    sender.stays = false;
    QVERIFY(serve([&] { return !only().end.isNull(); }));
    QCOMPARE(only().end, QStringLiteral("peer"));
    QCOMPARE(only().size, Bytes);
    QVERIFY(only().intact);
}

void tst_LimitEnds::resetOfAPausedConnection()
{
    start({{QStringLiteral("connectionBuffer"), 16 * KiB}});
    Sender sender(port, 0, 48 * KiB);
    sender.resets = true;
    QVERIFY(serve([&] { return !streams.isEmpty() && sender.finished; }));
    sender.stays = false;
    QVERIFY(serve([&] { return !only().end.isNull(); }));
    QCOMPARE(only().end, QStringLiteral("reset"));
    QVERIFY(only().size >= 16 * KiB);
    QVERIFY(only().intact);
}

void tst_LimitEnds::stopWhilePaused()
{
    QFETCH(int, tls);
    constexpr qsizetype Bytes = 48 * KiB; // the kernel has room for them
    start({{QStringLiteral("connectionBuffer"), 16 * KiB}});
    Sender sender(port, tls, Bytes);
    QVERIFY(serve([&] { return !streams.isEmpty() && sender.finished; }));
    plugin->stop();
    QVERIFY(serve([&] { return !only().end.isNull(); }));
    QCOMPARE(only().end, QStringLiteral("stop"));
    QCOMPARE(only().size, Bytes);
    QVERIFY(only().intact);
    sender.stays = false;
}

void tst_LimitEnds::destructionWhilePaused()
{
    QFETCH(int, tls);
    constexpr qsizetype Bytes = 48 * KiB; // the kernel has room for them
    start({{QStringLiteral("connectionBuffer"), 16 * KiB}});
    keeps = true;
    Sender sender(port, tls, Bytes);
    QVERIFY(serve([&] { return !streams.isEmpty() && sender.finished; }));
    plugin.reset();
    QCOMPARE(only().end, QStringLiteral("stop"));
    QCOMPARE(only().size, Bytes);
    QVERIFY(only().intact);
    kept.clear(); // only now: records may outlive the plugin
    sender.stays = false;
}

QTEST_GUILESS_MAIN(tst_LimitEnds)
#include "tst_limitends.moc"
