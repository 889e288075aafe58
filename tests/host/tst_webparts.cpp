// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "host/web/bulletin.h"
#include "host/web/connectionpage.h"
#include "host/web/connectiontable.h"
#include "host/web/health.h"
#include "host/web/metrics.h"
#include "host/web/processfigures.h"
#include "host/web/statusjson.h"
#include "host/web/webaddress.h"
#include "plugin/kit/offerconsumer.h"
#include "tests/kit/hangguard.h"

#include <QtCore/QJsonArray>
#include <QtCore/QJsonDocument>
#include <QtCore/QJsonObject>
#include <QtTest/QtTest>

#include <thread>

using namespace host;
using namespace std::chrono_literals;

namespace {

using Clock = std::chrono::steady_clock;

// One that is ready and alive, with another number in each counter.
Snapshot goodSnapshot()
{
    Snapshot snapshot;
    snapshot.taken = Clock::now();
    snapshot.address = QStringLiteral("127.0.0.1");
    snapshot.port = 7446;
    snapshot.isAccepting = true;
    snapshot.sink = QStringLiteral("json");
    snapshot.sinkConnected = true;
    snapshot.messages = 1;
    snapshot.messageBytes = 2;
    snapshot.partial = 3;
    snapshot.tooLong = 4;
    snapshot.offers = 5;
    snapshot.unsafeMessages = 6;
    snapshot.maxConnections = 7;
    snapshot.totalBuffer = 8;
    snapshot.certificates = {
            {QStringLiteral("a\"b\\c\n<d>"), QDateTime::fromSecsSinceEpoch(2000000000).toUTC()}};
    snapshot.configured = QDateTime::fromMSecsSinceEpoch(1795478630281).toUTC();
    InputCounters plugin;
    plugin.accepted = 11;
    plugin.refusedByLimit = 12;
    plugin.closedByPeer = 13;
    plugin.closedByReset = 14;
    plugin.closedIdle = 15;
    plugin.closedByTls = 16;
    plugin.closedByLimit = 17;
    plugin.closedByStop = 18;
    plugin.waiting = 19;
    plugin.open = 20;
    plugin.paused = 21;
    plugin.bytes = 22;
    plugin.reads = 23;
    plugin.buffered = 24;
    plugin.handshakesDone = 25;
    plugin.handshakesFailed = 26;
    plugin.handshakesTimedOut = 27;
    plugin.withoutTls = 28;
    plugin.handshakeUs = 2900000;
    plugin.longestHandshakeUs = 1500000;
    plugin.refusedByProxyRule = 30;
    plugin.withoutHeader = 31;
    plugin.workers = {{3, 32, 0}, {4, 33, 250}};
    snapshot.plugin = plugin;
    return snapshot;
}

ConnectionRow row(const char *peer, unsigned short port, quint64 bytes, quint64 safe = 0)
{
    return {QString::fromLatin1(peer), port, 1000, 2000, bytes, safe};
}

QList<quint64> numbers(const ConnectionPage &page)
{
    QList<quint64> list;
    for (const ConnectionPage::Entry &entry : page.entries)
        list += entry.number;
    return list;
}

} // namespace

// What answers are made of, without a server.
class tst_WebParts : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void metrics_data();
    void metrics();
    void metricsAreWellFormed();
    void metricsWithoutPlugin();
    void json();
    void ready();
    void alive();
    void processFigures();
    void table();
    void pages_data();
    void pages();
    void tenThousandRows();
    void addresses_data();
    void addresses();
    void ownHosts_data();
    void ownHosts();
    void askedForRowsOnce();
    void rowsFromAnotherThread();
};

void tst_WebParts::metrics_data()
{
    QTest::addColumn<QByteArray>("value");
    const auto add = [](const char *sample, const char *value) {
        QTest::newRow(sample) << QByteArray(value);
    };
    add("inputhost_listening", "1");
    add("inputhost_accepting", "1");
    add("inputhost_draining", "0");
    add("inputhost_snapshot_age_seconds", "0.5");
    add("inputhost_config_last_reload_success_timestamp_seconds", "1795478630.281");
    add("inputhost_config_last_reload_successful", "1");
    add("inputhost_certificate_end_timestamp_seconds{position=\"0\"}", "2000000000");
    add("inputhost_limit_connections", "7");
    add("inputhost_limit_buffered_bytes", "8");
    add("inputhost_messages_total", "1");
    add("inputhost_message_bytes_total", "2");
    add("inputhost_partial_total", "3");
    add("inputhost_too_long_total", "4");
    add("inputhost_offers_total", "5");
    add("inputhost_sink_connected", "1");
    add("inputhost_sink_full", "0");
    add("inputhost_sink_unsafe_messages", "6");
    add("inputhost_connections{transport=\"tcp\"}", "20");
    add("inputhost_connections_waiting", "19");
    add("inputhost_reading_paused", "21");
    add("inputhost_connections_accepted_total", "11");
    add("inputhost_connections_closed_total{reason=\"peer\"}", "13");
    add("inputhost_connections_closed_total{reason=\"reset\"}", "14");
    add("inputhost_connections_closed_total{reason=\"idle\"}", "15");
    add("inputhost_connections_closed_total{reason=\"tls\"}", "16");
    add("inputhost_connections_closed_total{reason=\"limit\"}", "17");
    add("inputhost_connections_closed_total{reason=\"stop\"}", "18");
    add("inputhost_connections_refused_total{reason=\"limit\"}", "12");
    add("inputhost_connections_refused_total{reason=\"proxy_rule\"}", "30");
    add("inputhost_connections_refused_total{reason=\"no_header\"}", "31");
    add("inputhost_received_bytes_total", "22");
    add("inputhost_reads_total", "23");
    add("inputhost_buffered_bytes", "24");
    add("inputhost_tls_handshakes_total{result=\"done\"}", "25");
    add("inputhost_tls_handshakes_total{result=\"failed\"}", "26");
    add("inputhost_tls_handshakes_total{result=\"timed_out\"}", "27");
    add("inputhost_tls_handshakes_total{result=\"without_tls\"}", "28");
    add("inputhost_tls_handshake_seconds_sum", "2.9");
    add("inputhost_tls_handshake_seconds_count", "25");
    add("inputhost_tls_handshake_longest_seconds", "1.5");
    add("inputhost_worker_turns_total{worker=\"3\"}", "32");
    add("inputhost_worker_turn_seconds{worker=\"4\"}", "0.25");
    add("process_resident_memory_bytes", "4096");
    add("process_cpu_seconds_total", "1.25");
    add("process_open_fds", "9");
    add("process_max_fds", "1024");
}

void tst_WebParts::metrics()
{
    QFETCH(const QByteArray, value);
    ProcessFigures process;
    process.residentBytes = 4096;
    process.cpuSeconds = 1.25;
    process.openFiles = 9;
    process.maxFiles = 1024;
    const QByteArray line = '\n' + QByteArray(QTest::currentDataTag()) + ' ' + value + '\n';
    const QByteArray text = metricsText(goodSnapshot(), process, 0.5);
    QVERIFY2(text.contains(line), text.constData());
}

// Each family is described once, before its samples.
void tst_WebParts::metricsAreWellFormed()
{
    const QByteArray text = metricsText(goodSnapshot(), {}, 0);
    QVERIFY(text.endsWith('\n'));
    static const QRegularExpression sample(QStringLiteral(
            R"(^([a-z_]+)(\{[a-z]+="[^"\n]*"(,[a-z]+="[^"\n]*")*\})? -?[0-9.e+]+$)"));
    QSet<QString> families;
    QString family;
    const QStringList lines = QString::fromUtf8(text).chopped(1).split(QLatin1Char('\n'));
    for (const QString &line : lines) {
        if (line.startsWith(QLatin1String("# HELP "))) {
            family = line.section(QLatin1Char(' '), 2, 2);
            QVERIFY2(!families.contains(family), qPrintable(line));
            families.insert(family);
        } else if (line.startsWith(QLatin1Char('#'))) {
            QCOMPARE(line.section(QLatin1Char(' '), 1, 2), QStringLiteral("TYPE ") + family);
        } else {
            const QString name = sample.match(line).captured(1);
            QVERIFY2(name == family || name == family + QLatin1String("_sum")
                             || name == family + QLatin1String("_count"),
                     qPrintable(line));
        }
    }
}

void tst_WebParts::metricsWithoutPlugin()
{
    Snapshot snapshot = goodSnapshot();
    snapshot.plugin.reset();
    snapshot.port = 0;
    const QByteArray text = metricsText(snapshot, {}, 0);
    QVERIFY(text.contains("\ninputhost_listening 0\n"));
    QVERIFY(text.contains("\ninputhost_accepting 0\n"));
    QVERIFY(!text.contains("inputhost_connections"));
}

void tst_WebParts::json()
{
    ConnectionRows rows = {{5, row("::1", 80, 10, 4)}};
    const Snapshot snapshot = goodSnapshot();
    const QByteArray text =
            statusJson(snapshot, snapshot.taken + 40ms, {}, pageOf(rows, ConnectionQuery()));
    const QJsonObject all = QJsonDocument::fromJson(text).object();
    const auto in = [&](const char *object) { return all.value(QLatin1String(object)).toObject(); };
    QCOMPARE(all.value(u"ageMs").toInt(), 40);
    QCOMPARE(in("ready").value(u"ok").toBool(), true);
    QCOMPARE(in("input").value(u"port").toInt(), 7446);
    QCOMPARE(in("plugin").value(u"handshakes").toObject().value(u"meanMs").toDouble(), 116);
    QCOMPARE(in("plugin").value(u"workers").toArray().size(), 2);
    QCOMPARE(all.value(u"certificates").toArray().at(0).toObject().value(u"name").toString(),
             QStringLiteral("a\"b\\c\n<d>"));
    QCOMPARE(in("connections").value(u"total").toInt(), 1);
    const QJsonObject first = in("connections").value(u"rows").toArray().at(0).toObject();
    QCOMPARE(first,
             (QJsonObject{{QStringLiteral("number"), 5},
                          {QStringLiteral("device"), QStringLiteral("[::1]:80")},
                          {QStringLiteral("since"), QStringLiteral("1970-01-01T00:00:01.000Z")},
                          {QStringLiteral("last"), QStringLiteral("1970-01-01T00:00:02.000Z")},
                          {QStringLiteral("bytes"), 10},
                          {QStringLiteral("unsafe"), 6}}));
}

void tst_WebParts::ready()
{
    const auto reasons = [](auto change) {
        Snapshot snapshot = goodSnapshot();
        change(snapshot);
        return reasonsNotReady(snapshot).join(QLatin1Char(';'));
    };
    QCOMPARE(reasons([](Snapshot &) {}), QString());
    QCOMPARE(reasons([](Snapshot &s) { s.port = 0; }), QStringLiteral("not listening"));
    QCOMPARE(reasons([](Snapshot &s) { s.isAccepting = false; }), QStringLiteral("not accepting"));
    QCOMPARE(reasons([](Snapshot &s) { s.sinkConnected = false; }),
             QStringLiteral("output not connected"));
    QCOMPARE(reasons([](Snapshot &s) { s.isDraining = true; }), QStringLiteral("stopping"));
}

void tst_WebParts::alive()
{
    Snapshot snapshot = goodSnapshot();
    QCOMPARE(reasonsNotAlive(snapshot, snapshot.taken + MostAge), QStringList());
    QCOMPARE(reasonsNotAlive(snapshot, snapshot.taken + MostAge + 1ms),
             QStringList(QStringLiteral("main thread: no turn for 1251 ms")));
    snapshot.plugin->workers[1].turnMs = 1000;
    QCOMPARE(reasonsNotAlive(snapshot, snapshot.taken), QStringList());
    snapshot.plugin->workers[1].turnMs = 1001;
    QCOMPARE(reasonsNotAlive(snapshot, snapshot.taken),
             QStringList(QStringLiteral("worker 4: in one turn for 1001 ms")));
}

void tst_WebParts::processFigures()
{
    const ProcessFigures before = ProcessFigures::read();
    QVERIFY(before.residentBytes > 1000000);
    QVERIFY(before.virtualBytes > before.residentBytes);
    QVERIFY(before.threads >= 1);
    const auto now = static_cast<double>(QDateTime::currentSecsSinceEpoch());
    QVERIFY2(before.startTime > now - 3600 && before.startTime <= now + 2,
             qPrintable(QString::number(before.startTime)));
    QFile file(QStringLiteral("/dev/null"));
    QVERIFY(file.open(QIODevice::ReadOnly));
    const ProcessFigures after = ProcessFigures::read();
    QCOMPARE(after.openFiles, before.openFiles + 1);
    QVERIFY(after.maxFiles >= after.openFiles);
    QVERIFY(after.cpuSeconds >= before.cpuSeconds);
}

void tst_WebParts::table()
{
    ConnectionTable table;
    table.setAcknowledged(true);
    inputkit::Origin origin;
    origin.connection = 9;
    origin.peer = QStringLiteral("10.0.0.1");
    origin.port = 5;
    table.noteSafe(9, 1); // over, or never heard of
    QVERIFY(table.rows().isEmpty());
    table.read(origin, 0, "abc");
    const ConnectionRows kept = table.rows();
    table.read(origin, 3, "de");
    table.noteSafe(9, 4);
    QCOMPARE(kept.value(9).bytes, 3u);
    const ConnectionRow row = table.rows().value(9);
    QCOMPARE(row.peer, QStringLiteral("10.0.0.1"));
    QCOMPARE(row.port, 5);
    QCOMPARE(row.bytes, 5u);
    QCOMPARE(row.safe, 4u);
    QCOMPARE(row.sinceMs, kept.value(9).sinceMs);
    QVERIFY(row.sinceMs > 0 && row.lastMs >= row.sinceMs);
    table.ended(origin, QStringLiteral("peer"), 5);
    QVERIFY(table.rows().isEmpty());

    table.setAcknowledged(false);
    table.read(origin, 5, "f");
    QCOMPARE(table.rows().value(9).safe, 6u);
}

void tst_WebParts::pages_data()
{
    QTest::addColumn<QStringList>("asked"); // offset, limit, sort, search; "-": not given
    QTest::addColumn<QList<quint64>>("shown");
    QTest::addColumn<int>("matching");
    using Numbers = QList<quint64>;
    const auto add = [](const char *asked, const Numbers &shown, int matching) {
        QTest::newRow(asked) << QString::fromLatin1(asked).split(QLatin1Char(' ')) << shown
                             << matching;
    };
    add("- - - -", {1, 2, 3, 4}, 4);
    add("1 2 - -", {2, 3}, 4);
    add("9 2 - -", {}, 4);
    add("0 0 - -", {}, 4);
    add("- - -number -", {4, 3, 2, 1}, 4);
    add("- - bytes -", {1, 3, 4, 2}, 4);
    add("- - -bytes -", {2, 3, 4, 1}, 4); // 3 and 4 are alike
    add("- - device -", {3, 1, 4, 2}, 4);
    add("- - -unsafe -", {2, 4, 1, 3}, 4);
    add("- - - 10.0.0.2:", {1, 4}, 2);
    add("- - - FE80", {2}, 1);
    add("- - - <script>", {}, 0);
}

void tst_WebParts::pages()
{
    QFETCH(const QStringList, asked);
    const ConnectionRows rows = {{1, row("10.0.0.2", 7, 1)},
                                 {2, row("fe80::1", 1, 9)},
                                 {3, row("10.0.0.1", 9, 5, 5)},
                                 {4, row("10.0.0.2", 30, 5, 3)}};
    const auto text = [&](int n) {
        return asked.at(n) == QLatin1String("-") ? QString() : asked.at(n);
    };
    QString fault;
    const auto query = ConnectionQuery::parse(text(0), text(1), text(2), text(3), fault);
    QVERIFY2(query, qPrintable(fault));
    const ConnectionPage page = pageOf(rows, *query);
    QTEST(numbers(page), "shown");
    QCOMPARE(page.total, 4);
    QTEST(int(page.matching), "matching");
}

// All pages together have each connection once.
void tst_WebParts::tenThousandRows()
{
    constexpr quint64 Number = 10000;
    ConnectionRows rows;
    for (quint64 n = 1; n <= Number; ++n)
        rows.insert(n, row("10.0.0.1", static_cast<unsigned short>(n), n % 7));
    ConnectionQuery query;
    query.order = ConnectionQuery::Bytes;
    query.descending = true;
    query.limit = ConnectionQuery::MostRows;
    QList<quint64> all;
    quint64 lastBytes = Number;
    for (; query.offset < qsizetype(Number); query.offset += query.limit) {
        const ConnectionPage page = pageOf(rows, query);
        QCOMPARE(page.entries.size(), query.limit);
        for (const ConnectionPage::Entry &entry : page.entries) {
            QVERIFY(entry.row->bytes <= lastBytes);
            lastBytes = entry.row->bytes;
        }
        all += numbers(page);
    }
    QCOMPARE(all.size(), qsizetype(Number));
    QCOMPARE(QSet<quint64>(all.begin(), all.end()).size(), qsizetype(Number));
}

void tst_WebParts::addresses_data()
{
    QTest::addColumn<QString>("read"); // empty: refused
    const auto add = [](const char *text, const char *read) {
        QTest::newRow(text) << QString::fromLatin1(read);
    };
    add("9100", "127.0.0.1:9100");
    add(":9100", "127.0.0.1:9100");
    add("0", "127.0.0.1:0");
    add("0.0.0.0:80", "0.0.0.0:80");
    add("10.1.2.3:65535", "10.1.2.3:65535");
    add("[::1]:9100", "[::1]:9100");
    add("[::]:9100", "[::]:9100");
    for (const char *text : {"",
                             ":",
                             "65536",
                             "-1",
                             "+1",
                             " 1",
                             "1 ",
                             "a",
                             "10.1:80",
                             "1.2.3.4",
                             "1.2.3.4:",
                             "::1:80",
                             "[::1]",
                             "[::1]80",
                             "[::1",
                             "[1.2.3.4]:80",
                             "[]:80",
                             "localhost:80",
                             "1.2.3.4.5:80",
                             "*:80"})
        add(text, "");
}

void tst_WebParts::addresses()
{
    const auto address = parseWebAddress(QString::fromLatin1(QTest::currentDataTag()));
    QTEST(address ? address->toString() : QString(), "read");
}

void tst_WebParts::ownHosts_data()
{
    QTest::addColumn<bool>("own");
    for (const char *host : {"localhost", "LocalHost:80", "127.0.0.1", "127.9.9.9:1", "[::1]",
                             "[::1]:80", "10.1.2.3", "10.1.2.3:80"})
        QTest::newRow(host) << true;
    for (const char *host : {"", "10.1.2.4", "localhost.evil.example", "evil", "localhost:",
                             "127.1", "localhost:x", "127.0.0.1.evil", "[::1", "[10.1.2.3]",
                             "[localhost]", "2130706433", "0.0.0.0", "::1", "localhost@evil"})
        QTest::newRow(host) << false;
}

void tst_WebParts::ownHosts()
{
    const QHostAddress local(QStringLiteral("10.1.2.3"));
    QTEST(isOwnHost(QString::fromLatin1(QTest::currentDataTag()), local), "own");
}

// A host that stands still is waited for once, and not asked again.
void tst_WebParts::askedForRowsOnce()
{
    int asked = 0;
    Bulletin bulletin([&] { ++asked; });
    QVERIFY(bulletin.rows()->isEmpty());
    QVERIFY(bulletin.rows()->isEmpty());
    QCOMPARE(asked, 1);
    bulletin.publish(ConnectionRows{{1, row("a", 1, 1)}});
    QCOMPARE(bulletin.rows()->size(), 1);
    QCOMPARE(asked, 1); // they are new
}

void tst_WebParts::rowsFromAnotherThread()
{
    std::thread host;
    Bulletin bulletin([&] {
        host = std::thread([&] { bulletin.publish(ConnectionRows{{1, row("a", 1, 1)}}); });
    });
    // The answer may come too late once, but not for ever.
    QTRY_COMPARE_WITH_TIMEOUT(bulletin.rows()->size(), 1, HangGuardMs);
    host.join();
}

QTEST_GUILESS_MAIN(tst_WebParts)
#include "tst_webparts.moc"
