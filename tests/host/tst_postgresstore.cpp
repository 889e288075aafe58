// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "host/sinks/makesink.h"
#include "tests/host/postgresserver.h"
#include "tests/host/storetest.h"

#include <QtNetwork/QTcpServer>

using namespace host;
using namespace std::chrono_literals;
using namespace storetest;

namespace {

std::unique_ptr<Store> makePostgresStore(const QString &address, const QString &epoch)
{
    OutputOptions options;
    options.kind = OutputOptions::Postgres;
    options.target = address;
    return makeStore(options, epoch);
}

} // namespace

// Each message is in the database once, whatever happens to the server.
class tst_PostgresStore : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void init();
    void storesAll();
    void storesBytesAsTheyAre();
    void storesOnlyOnce();
    void tellsWhatIsSafe();
    void storesLargeQueue();
    void startsWithoutServer();
    void waitsForServer();
    void reconnectsAtRest();
    void waitsForPermission();
    void writesWithFewRights();
    void closesWhileServerIsSilent();
    void committedMeansOnDisk();
    void committedMeansOnDiskAfterReload();
    void refusesNewer();
    void refusesAddress_data();
    void refusesAddress();
    void showsNoPassword();

private:
    std::unique_ptr<Store> store(const QString &epoch = QStringLiteral("e1"))
    {
        return makePostgresStore(server.address(), epoch);
    }

    PostgresServer server;
    std::optional<Log> log;
};

void tst_PostgresStore::initTestCase()
{
    if (PostgresServer::programs().isEmpty())
        QSKIP("Debian's package postgresql is not installed");
    server.make();
    server.start();
}

void tst_PostgresStore::init()
{
    if (!server.isRunning())
        server.start();
    server.ask("drop schema if exists inputhost cascade");
    log.reset(); // there may be one at a time
    log.emplace();
}

void tst_PostgresStore::storesAll()
{
    {
        StoreSink sink(store());
        QVERIFY2(sink.open(), qPrintable(sink.errorString()));
        Talker first(sink, 1);
        Talker second(sink, 2);
        Talker silent(sink, 3);
        first.begin();
        second.begin();
        first.count(0, 100);
        second.say("half", true);
        second.end(QStringLiteral("it's \"over\""));
        silent.end(QStringLiteral("idle"));
        first.count(100, 100);
        QCOMPARE(sink.finish(LongTime), 0);
    }
    QCOMPARE(server.ask("select string_agg(convert_from(bytes, 'UTF8'), ',' order by id)"
                        " from inputhost.messages where connection = 1"),
             QString::fromLatin1(numbers(0, 200).join(',')));
    QCOMPARE(
            server.ask(
                    "select convert_from(bytes, 'UTF8'), position, finish, extract(epoch from time)"
                    " from inputhost.messages where partial"),
            QStringLiteral("half|0|4|1700000000.002000"));
    QCOMPARE(server.ask("select sum(finish - position - length(bytes)) from inputhost.messages"),
             QStringLiteral("200"));
    const Origin origin = originOf(2);
    const QString time = QStringLiteral("1700000000.002000");
    QCOMPARE(
            server.ask("select plugin, source, peer, port, client, task, extract(epoch from began),"
                       " extract(epoch from ended), reason, length from inputhost.connections"
                       " where connection = 2"),
            (QStringList{origin.plugin, origin.source, origin.peer, QString::number(origin.port),
                         origin.client, origin.task, time, time, QStringLiteral("it's \"over\""),
                         QStringLiteral("4")})
                    .join(QLatin1Char('|')));
    QCOMPARE(server.ask("select connection, began is null, ended is null, reason is null, length"
                        " from inputhost.connections where connection <> 2 order by 1"),
             QStringLiteral("1|f|t|t|\n3|t|f|f|0"));
    QCOMPARE(log->lines(), QStringList());
}

void tst_PostgresStore::storesBytesAsTheyAre()
{
    {
        StoreSink sink(store());
        QVERIFY(sink.open());
        Talker talker(sink, 1);
        for (const QByteArray &message : oddMessages())
            talker.say(message);
        talker.origin.client = QStringLiteral("nul") + QChar(0) + QStringLiteral("nul");
        talker.end(QStringLiteral("peer"));
        QCOMPARE(sink.finish(LongTime), 0);
    }
    QByteArrayList hex;
    for (const QByteArray &message : oddMessages())
        hex += message.toHex();
    QCOMPARE(server.ask("select encode(bytes, 'hex') from inputhost.messages order by id"),
             QString::fromLatin1(hex.join('\n')));
    QCOMPARE(server.ask("select client from inputhost.connections"),
             QStringLiteral("nul\ufffdnul"));
}

// What is given again, since nobody knows whether it was stored, changes nothing.
void tst_PostgresStore::storesOnlyOnce()
{
    const auto play = [this](const QString &epoch) {
        StoreSink sink(store(epoch));
        QVERIFY(sink.open());
        Talker talker(sink, 1);
        talker.begin();
        talker.count(0, 50);
        talker.end(QStringLiteral("peer"));
        QCOMPARE(sink.finish(LongTime), 0);
    };
    play(QStringLiteral("same"));
    play(QStringLiteral("same"));
    QCOMPARE(server.ask("select count(*) from inputhost.messages"), QStringLiteral("50"));
    play(QStringLiteral("other"));
    QCOMPARE(server.ask("select count(*), count(distinct epoch) from inputhost.messages"),
             QStringLiteral("100|2"));
    QCOMPARE(server.ask("select count(*), count(distinct epoch) from inputhost.connections"),
             QStringLiteral("2|2"));
}

void tst_PostgresStore::tellsWhatIsSafe()
{
    StoreSink sink(store());
    QVERIFY(sink.open());
    Talker first(sink, 1);
    Talker second(sink, 2);
    QHash<quint64, quint64> safe;
    connect(&sink, &Sink::safe, this, [&safe](quint64 connection, quint64 end) {
        QVERIFY(safe.value(connection) < end);
        safe[connection] = end;
    });
    first.count(0, 10);
    second.count(0, 3);
    first.count(10, 10);
    QTRY_COMPARE_WITH_TIMEOUT(safe.value(1), first.position, HangGuardMs);
    QTRY_COMPARE_WITH_TIMEOUT(safe.value(2), second.position, HangGuardMs);
    QCOMPARE(server.ask("select count(*) from inputhost.messages"), QStringLiteral("23"));
    QVERIFY(sink.isConnected());
}

// More than one transaction takes.
void tst_PostgresStore::storesLargeQueue()
{
    constexpr int Connections = 50;
    constexpr int Messages = 1000;
    StoreSink sink(store());
    QVERIFY(sink.open());
    std::vector<Talker> talkers;
    for (int n = 1; n <= Connections; ++n)
        talkers.emplace_back(sink, n);
    for (int n = 0; n < Messages; ++n) {
        for (Talker &talker : talkers)
            talker.count(n, 1);
    }
    QCOMPARE(sink.finish(LongTime), 0);
    QCOMPARE(server.ask("select count(*) from inputhost.messages"), QStringLiteral("50000"));
    QCOMPARE(
            server.ask(
                    "select count(*) from (select bytes, row_number() over (partition by connection"
                    " order by id) as n from inputhost.messages) as m"
                    " where convert_from(bytes, 'UTF8') <> (n - 1)::text"),
            QStringLiteral("0"));
}

void tst_PostgresStore::startsWithoutServer()
{
    server.kill();
    StoreSink sink(store());
    QVERIFY2(sink.open(), qPrintable(sink.errorString()));
    Talker(sink, 1).count(0, 10);
    QTRY_VERIFY_WITH_TIMEOUT(log->has("W: Cannot store in PostgreSQL database postgres"),
                             HangGuardMs);
    QVERIFY(!sink.isConnected());
    server.start();
    QCOMPARE(sink.finish(LongTime), 0);
    QCOMPARE(server.ask("select count(*) from inputhost.messages"), QStringLiteral("10"));
    QCOMPARE(log->count(QStringLiteral("goes on, after")), 1);
}

// The server goes in the middle of the load, several times. Nobody knows whether the transaction
// that it was at has become one.
void tst_PostgresStore::waitsForServer()
{
    StoreSink sink(store());
    QVERIFY(sink.open());
    Talker talker(sink, 1);
    for (int round = 0; round < 3; ++round) {
        QSignalSpy safe(&sink, &Sink::safe);
        talker.count(round * 20000, 10000);
        QTRY_VERIFY_WITH_TIMEOUT(!safe.isEmpty(), HangGuardMs);
        talker.count(round * 20000 + 10000, 10000);
        server.kill();
        QTRY_VERIFY_WITH_TIMEOUT(!sink.isConnected(), HangGuardMs);
        server.start();
        QTRY_VERIFY_WITH_TIMEOUT(sink.isConnected(), HangGuardMs);
    }
    QCOMPARE(sink.finish(LongTime), 0);
    QCOMPARE(server.ask(
                     "select count(*), count(distinct bytes), max(finish) from inputhost.messages"),
             QStringLiteral("60000|60000|%1").arg(talker.position));
    QCOMPARE(log->count(QStringLiteral("Cannot store in ")), 3);
    QCOMPARE(log->count(QStringLiteral("goes on, after ")), 3);
}

// The operator hears of it, although there is nothing to store.
void tst_PostgresStore::reconnectsAtRest()
{
    StoreSink sink(store());
    QVERIFY(sink.open());
    QTRY_VERIFY_WITH_TIMEOUT(sink.isConnected(), HangGuardMs);
    server.kill();
    QTRY_VERIFY_WITH_TIMEOUT(!sink.isConnected(), HangGuardMs);
    server.start();
    QTRY_VERIFY_WITH_TIMEOUT(sink.isConnected(), HangGuardMs);
}

void tst_PostgresStore::waitsForPermission()
{
    StoreSink sink(store());
    QVERIFY(sink.open());
    Talker talker(sink, 1);
    server.ask("alter table inputhost.messages rename to away");
    talker.count(0, 5);
    QTRY_VERIFY_WITH_TIMEOUT(
            log->has("trying again: relation \"inputhost.messages\" does not exist"), HangGuardMs);
    server.ask("alter table inputhost.away rename to messages");
    QCOMPARE(sink.finish(LongTime), 0);
    QCOMPARE(server.ask("select count(*) from inputhost.messages"), QStringLiteral("5"));
}

// Somebody else has made the tables.
void tst_PostgresStore::writesWithFewRights()
{
    {
        StoreSink sink(store());
        QVERIFY(sink.open());
    }
    server.ask("create user writer");
    QCOMPARE(server.ask("grant usage on schema inputhost to writer;"
                        "grant select on all tables in schema inputhost to writer;"
                        "grant insert on inputhost.epochs, inputhost.messages to writer;"
                        "grant insert, update on inputhost.connections to writer"),
             QString());
    {
        StoreSink sink(makePostgresStore(server.address().replace(QStringLiteral("user=inputhost"),
                                                                  QStringLiteral("user=writer")),
                                         QStringLiteral("e2")));
        QVERIFY(sink.open());
        Talker(sink, 1).count(0, 5);
        QCOMPARE(sink.finish(LongTime), 0);
    }
    QCOMPARE(server.ask("select count(*) from inputhost.messages"), QStringLiteral("5"));
    QCOMPARE(log->lines(), QStringList());
}

// Something that listens, and says nothing.
void tst_PostgresStore::closesWhileServerIsSilent()
{
    QTcpServer silent;
    QVERIFY(silent.listen(QHostAddress::LocalHost));
    StoreSink sink(makePostgresStore(
            QStringLiteral("host=127.0.0.1 port=%1 user=x dbname=x").arg(silent.serverPort()),
            QStringLiteral("e1")));
    QVERIFY(sink.open());
    QVERIFY(!sink.isConnected());
    Talker(sink, 1).count(0, 5);
    QElapsedTimer timer;
    timer.start();
    QCOMPARE(sink.finish(1ms), 5);
}

void tst_PostgresStore::committedMeansOnDisk()
{
    QCOMPARE(server.ask("alter user inputhost set synchronous_commit = off"), QString());
    StoreSink sink(store());
    QVERIFY(sink.open());
    // The server crashes as soon as a message is safe.
    QSignalSpy safe(&sink, &Sink::safe);
    Talker talker(sink, 1);
    talker.count(0, 1);
    QTRY_VERIFY_WITH_TIMEOUT(!safe.isEmpty(), HangGuardMs);
    const QString setting = server.ask("select setting from pg_settings where name = 'fsync'");
    QCOMPARE(setting, QStringLiteral("on"));
    QCOMPARE(server.ask("alter user inputhost reset synchronous_commit"), QString());
    server.kill();
    server.start();
    QCOMPARE(server.ask("select count(*) from inputhost.messages"), QStringLiteral("1"));
}

// The administrator changes the setting while the program is connected.
void tst_PostgresStore::committedMeansOnDiskAfterReload()
{
    StoreSink sink(store());
    QVERIFY(sink.open());
    QTRY_VERIFY_WITH_TIMEOUT(sink.isConnected(), HangGuardMs);
    QCOMPARE(server.ask("create table inputhost.seen (setting text);"
                        "create function inputhost.note() returns trigger language plpgsql as $$"
                        " begin insert into inputhost.seen"
                        " values (current_setting('synchronous_commit')); return null; end $$;"
                        "create trigger note after insert on inputhost.messages"
                        " for each statement execute function inputhost.note()"),
             QString());
    server.ask("alter system set synchronous_commit = off");
    server.ask("select pg_reload_conf()");
    QTRY_COMPARE_WITH_TIMEOUT(server.ask("show synchronous_commit"), QStringLiteral("off"),
                              HangGuardMs);
    Talker(sink, 1).count(0, 5);
    const qint64 notSafe = sink.finish(LongTime);
    server.ask("alter system reset synchronous_commit");
    server.ask("select pg_reload_conf()");
    QCOMPARE(notSafe, 0);
    QCOMPARE(server.ask("select setting from inputhost.seen"), QStringLiteral("on"));
}

void tst_PostgresStore::refusesNewer()
{
    {
        StoreSink sink(store());
        QVERIFY(sink.open());
    }
    server.ask("update inputhost.schema set version = 2; drop table inputhost.epochs");
    StoreSink sink(store());
    QVERIFY(!sink.open());
    QVERIFY2(sink.errorString().endsWith(QStringLiteral(": a newer inputhost has made its tables")),
             qPrintable(sink.errorString()));
}

void tst_PostgresStore::refusesAddress_data()
{
    QTest::addColumn<QString>("address");
    QTest::addColumn<QString>("reason");
    QTest::newRow("no value") << QStringLiteral("host=x secret")
                              << QStringLiteral("PostgreSQL: missing \"...\" after \"...\" in "
                                                "connection info string");
    QTest::newRow("no such key") << QStringLiteral("pass=secret")
                                 << QStringLiteral("PostgreSQL: invalid connection option \"...\"");
    QTest::newRow("URI")
            << QStringLiteral("//me:se@cret@server/data")
            << QStringLiteral("PostgreSQL database data: a password in it has a @, which has to be "
                              "written as %40");
}

void tst_PostgresStore::refusesAddress()
{
    QFETCH(const QString, address);
    QFETCH(const QString, reason);
    StoreSink sink(makePostgresStore(address, QStringLiteral("e1")));
    QVERIFY(!sink.open());
    QCOMPARE(sink.errorString(), reason);
}

void tst_PostgresStore::showsNoPassword()
{
    StoreSink sink(makePostgresStore(QStringLiteral("//me:geheim@geheim.invalid/data"),
                                     QStringLiteral("e1")));
    QVERIFY(sink.open());
    QTRY_VERIFY_WITH_TIMEOUT(!sink.isConnected(), HangGuardMs);
    QTRY_VERIFY_WITH_TIMEOUT(!log->lines().isEmpty(), HangGuardMs);
    const QString line = log->lines().first();
    QVERIFY2(line.contains(QStringLiteral("\"***.invalid\"")), qPrintable(line));
}

QTEST_GUILESS_MAIN(tst_PostgresStore)
#include "tst_postgresstore.moc"
