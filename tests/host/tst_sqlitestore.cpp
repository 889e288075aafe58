// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "tests/host/sqlitereader.h"
#include "tests/host/sqlitestoretest.h"

#include <csignal>
#include <cstdio>

#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace host;
using namespace std::chrono_literals;
using namespace storetest;

namespace {

constexpr auto LoadArgument = "--load";

// Permissions mean nothing to root. The test's files are made behind this.
void becomePlainUser()
{
    constexpr uid_t Nobody = 65534;
    if (::getuid() == 0)
        QCOMPARE(::setresuid(Nobody, Nobody, Nobody), 0);
}

//! While it lives, no file may become larger.
class FileLimit
{
public:
    explicit FileLimit(rlim_t bytes)
    {
        std::signal(SIGXFSZ, SIG_IGN);
        ::getrlimit(RLIMIT_FSIZE, &before);
        rlimit limited = before;
        limited.rlim_cur = bytes;
        ::setrlimit(RLIMIT_FSIZE, &limited);
    }
    ~FileLimit() { ::setrlimit(RLIMIT_FSIZE, &before); }
    Q_DISABLE_COPY_MOVE(FileLimit)

private:
    rlimit before = {};
};

} // namespace

// Each message is in the file once, whatever happens to the file.
class tst_SqliteStore : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void init();
    void storesAll();
    void storesBytesAsTheyAre();
    void storesOnlyOnce();
    void tellsWhatIsSafe();
    void continuesFile();
    void canBeReadMeanwhile();
    void storesLargeQueue();
    void waitsWhileLocked();
    void waitsWhileDiskIsFull();
    void waitsWhileReadOnly();
    void startsWhileLocked();
    void closesWhileLocked();
    void survivesKill();
    void refuses_data();
    void refuses();

private:
    std::unique_ptr<Store> store(const QString &epoch = QStringLiteral("e1")) const
    {
        return makeSqliteStore(file, {}, epoch);
    }

    std::unique_ptr<QTemporaryDir> folder;
    QString file;
    std::optional<Log> log;
};

void tst_SqliteStore::initTestCase()
{
    becomePlainUser();
    folder = std::make_unique<QTemporaryDir>();
    QVERIFY2(folder->isValid(), qPrintable(folder->errorString()));
}

void tst_SqliteStore::init()
{
    file = folder->filePath(QString::fromLatin1(QTest::currentTestFunction()));
    if (const char *tag = QTest::currentDataTag())
        file += QString::fromLatin1(tag);
    log.reset(); // there may be one at a time
    log.emplace();
}

void tst_SqliteStore::storesAll()
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
    SqliteReader reader(file);
    QCOMPARE(reader.messages("connection = 1"), numbers(0, 200));
    QCOMPARE(reader.messages("connection = 2 and partial"), QByteArrayList{"half"});
    QCOMPARE(reader.number("select sum(finish - position - length(bytes)) from messages"), 200);
    QCOMPARE(reader.number("select time from messages where connection = 2"), 1700000000002);
    QCOMPARE(reader.number("select count(*) from connections"), 3);
    QCOMPARE(reader.number("select began from connections where connection = 1 and ended is null"
                           " and reason is null and length is null"),
             1700000000001);
    const Origin origin = originOf(2);
    const auto rows = reader.rows(QStringLiteral(
            "select plugin, source, peer, port, client, task, began, ended, reason, length"
            " from connections where connection = 2"));
    const QVariantList expected = {origin.plugin,
                                   origin.source,
                                   origin.peer,
                                   qint64(origin.port),
                                   origin.client,
                                   origin.task,
                                   qint64(1700000000002),
                                   qint64(1700000000002),
                                   QStringLiteral("it's \"over\""),
                                   qint64(4)};
    QCOMPARE(rows, QList<QVariantList>{expected});
    QCOMPARE(reader.number("select ended from connections where connection = 3 and began is null"),
             1700000000003);
    QCOMPARE(log->lines(), QStringList());
}

void tst_SqliteStore::storesBytesAsTheyAre()
{
    {
        StoreSink sink(store());
        QVERIFY(sink.open());
        Talker talker(sink, 1);
        for (const QByteArray &message : oddMessages())
            talker.say(message);
        QCOMPARE(sink.finish(LongTime), 0);
    }
    SqliteReader reader(file);
    QCOMPARE(reader.messages(), oddMessages());
    QCOMPARE(reader.number("select count(*) from messages where typeof(bytes) <> 'blob'"), 0);
}

// What is given again, since nobody knows whether it was stored, changes nothing.
void tst_SqliteStore::storesOnlyOnce()
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
    QCOMPARE(SqliteReader(file).messages(), numbers(0, 50));
    QCOMPARE(SqliteReader(file).number("select count(*) from connections"), 1);
    play(QStringLiteral("other"));
    QCOMPARE(SqliteReader(file).messages(), numbers(0, 50) + numbers(0, 50));
    QCOMPARE(SqliteReader(file).number("select count(*) from connections"), 2);
    QCOMPARE(SqliteReader(file).number("select count(*) from epochs"), 2);
}

void tst_SqliteStore::tellsWhatIsSafe()
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
    QCOMPARE(SqliteReader(file).messages("connection = 1"),
             numbers(0, 20)); // so it is there by now
    QVERIFY(sink.isConnected());
}

void tst_SqliteStore::continuesFile()
{
    for (int process = 0; process < 3; ++process) {
        StoreSink sink(store(QStringLiteral("e%1").arg(process)));
        QVERIFY2(sink.open(), qPrintable(sink.errorString()));
        Talker(sink, 1).count(process, 1);
        QCOMPARE(sink.finish(LongTime), 0);
    }
    QCOMPARE(SqliteReader(file).messages(), numbers(0, 3));
}

void tst_SqliteStore::canBeReadMeanwhile()
{
    StoreSink sink(store());
    QVERIFY(sink.open());
    SqliteReader reader(file);
    reader.exec("begin");
    QCOMPARE(reader.messages(), QByteArrayList());
    Talker(sink, 1).count(0, 10);
    QCOMPARE(sink.finish(LongTime), 0); // although somebody reads
    QCOMPARE(reader.messages(), QByteArrayList());
    reader.exec("commit");
    QCOMPARE(reader.messages(), numbers(0, 10));
}

// More than one transaction takes.
void tst_SqliteStore::storesLargeQueue()
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
    SqliteReader reader(file);
    QCOMPARE(reader.number("select count(*) from messages"), Connections * Messages);
    QCOMPARE(reader.messages("connection = 7"), numbers(0, Messages));
}

void tst_SqliteStore::waitsWhileLocked()
{
    StoreSink sink(store());
    QVERIFY(sink.open());
    Talker talker(sink, 1);
    talker.count(0, 5);
    QTRY_COMPARE_WITH_TIMEOUT(SqliteReader(file).messages().size(), 5, HangGuardMs);
    SqliteReader other(file);
    other.exec("begin immediate");
    talker.count(5, 5);
    QTRY_VERIFY_WITH_TIMEOUT(!sink.isConnected(), HangGuardMs);
    QCOMPARE(log->lines(),
             QStringList{QStringLiteral("W: Cannot store in %1, trying again: database is locked")
                                 .arg(file)});
    QCOMPARE(other.messages(), numbers(0, 5));
    other.exec("commit");
    QTRY_VERIFY_WITH_TIMEOUT(sink.isConnected(), HangGuardMs);
    QCOMPARE(sink.finish(LongTime), 0);
    QCOMPARE(other.messages(), numbers(0, 10));
    QCOMPARE(log->lines().size(), 2);
    QVERIFY(log->lines().last().startsWith(
            QStringLiteral("W: Storing in %1 goes on, after ").arg(file)));
}

void tst_SqliteStore::waitsWhileDiskIsFull()
{
    StoreSink sink(store());
    QVERIFY(sink.open());
    Talker talker(sink, 1);
    talker.count(0, 5);
    QTRY_COMPARE_WITH_TIMEOUT(SqliteReader(file).messages().size(), 5, HangGuardMs);
    const QByteArray large(1000000, 'x');
    {
        const FileLimit limit(500000);
        talker.say(large);
        talker.count(5, 5);
        QTRY_VERIFY_WITH_TIMEOUT(!sink.isConnected(), HangGuardMs);
        QVERIFY(log->has("Cannot store in "));
        QCOMPARE(SqliteReader(file).messages(), numbers(0, 5));
    }
    QTRY_VERIFY_WITH_TIMEOUT(sink.isConnected(), HangGuardMs);
    QCOMPARE(sink.finish(LongTime), 0);
    QCOMPARE(SqliteReader(file).messages(), numbers(0, 5) + QByteArrayList{large} + numbers(5, 5));
    QCOMPARE(SqliteReader(file).rows(QStringLiteral("pragma integrity_check")).first().first(),
             QVariant(QStringLiteral("ok")));
}

void tst_SqliteStore::waitsWhileReadOnly()
{
    {
        StoreSink sink(store(QStringLiteral("before")));
        QVERIFY(sink.open());
        Talker(sink, 1).count(0, 5);
        QCOMPARE(sink.finish(LongTime), 0);
    }
    const QByteArray name = file.toLocal8Bit();
    QCOMPARE(::chmod(name.constData(), 0400), 0);
    StoreSink sink(store());
    QVERIFY2(sink.open(), qPrintable(sink.errorString()));
    Talker(sink, 1).count(5, 5);
    QVERIFY(log->has("trying again: it is read-only"));
    QVERIFY(!sink.isConnected());
    QCOMPARE(::chmod(name.constData(), 0600), 0);
    QTRY_VERIFY_WITH_TIMEOUT(sink.isConnected(), HangGuardMs);
    QCOMPARE(sink.finish(LongTime), 0);
    QCOMPARE(SqliteReader(file).messages(), numbers(0, 10));
}

void tst_SqliteStore::startsWhileLocked()
{
    { // makes the file
        StoreSink sink(store());
        QVERIFY(sink.open());
    }
    SqliteReader other(file);
    other.exec("begin immediate");
    StoreSink sink(store(QStringLiteral("late")));
    QVERIFY2(sink.open(), qPrintable(sink.errorString()));
    Talker(sink, 1).count(0, 5);
    QVERIFY(log->has("trying again: database is locked"));
    other.exec("commit");
    QCOMPARE(sink.finish(LongTime), 0);
    QCOMPARE(other.messages(), numbers(0, 5));
}

void tst_SqliteStore::closesWhileLocked()
{
    StoreSink sink(store());
    QVERIFY(sink.open());
    SqliteReader other(file);
    other.exec("begin immediate");
    Talker(sink, 1).count(0, 5);
    QTRY_VERIFY_WITH_TIMEOUT(log->has("Cannot store in "), HangGuardMs);
    QCOMPARE(sink.finish(1ms), 5);
    other.exec("commit");
    QCOMPARE(other.messages(), QByteArrayList());
}

// Whatever was safe is there, once, and the file is sound.
void tst_SqliteStore::survivesKill()
{
    QProcess load;
    load.start(QCoreApplication::applicationFilePath(), {QLatin1String(LoadArgument), file});
    QVERIFY(load.waitForStarted(HangGuardMs));
    QByteArray told;
    QTRY_VERIFY_WITH_TIMEOUT((told += load.readAllStandardOutput()).count('\n') > 5, HangGuardMs);
    load.kill();
    QVERIFY(load.waitForFinished(HangGuardMs));
    told += load.readAllStandardOutput();
    const QByteArray lastWhole = told.left(told.lastIndexOf('\n'));
    const qint64 safe = lastWhole.mid(lastWhole.lastIndexOf('\n') + 1).toLongLong();
    QVERIFY(safe > 0);

    SqliteReader reader(file);
    QCOMPARE(reader.rows(QStringLiteral("pragma integrity_check")).first().first(),
             QVariant(QStringLiteral("ok")));
    const qint64 stored = reader.number("select max(finish) from messages");
    QVERIFY2(stored >= safe, qPrintable(QStringLiteral("%1 < %2").arg(stored).arg(safe)));
    QCOMPARE(reader.number("select sum(finish - position) from messages"), stored); // no gap
    StoreSink sink(store()); // the file is used on
    QVERIFY2(sink.open(), qPrintable(sink.errorString()));
}

void tst_SqliteStore::refuses_data()
{
    QTest::addColumn<QByteArray>("content");
    QTest::addColumn<QString>("statement");
    QTest::addColumn<QString>("reason");
    QTest::newRow("text") << QByteArray(5000, 'x') << QString()
                          << QStringLiteral("file is not a database");
    QTest::newRow("foreign") << QByteArray() << QStringLiteral("create table messages (id integer)")
                             << QStringLiteral("it is a database of another program");
    QTest::newRow("foreign, empty") << QByteArray() << QStringLiteral("pragma application_id = 1")
                                    << QStringLiteral("it is a database of another program");
    QTest::newRow("newer") << QByteArray() << QStringLiteral("pragma user_version = 2")
                           << QStringLiteral("a newer inputhost has made it: its schema is 2, this "
                                             "program's is 1");
}

void tst_SqliteStore::refuses()
{
    QFETCH(const QByteArray, content);
    QFETCH(const QString, statement);
    QFETCH(const QString, reason);
    if (QTest::currentDataTag() == QByteArray("newer")) {
        StoreSink sink(store());
        QVERIFY(sink.open());
    } else {
        QFile made(file);
        QVERIFY(made.open(QIODevice::WriteOnly) && made.write(content) == content.size());
    }
    if (!statement.isEmpty())
        SqliteReader(file).exec(statement.toLatin1().constData());
    QFile now(file);
    QVERIFY(now.open(QIODevice::ReadOnly));
    const QByteArray before = now.readAll();

    StoreSink sink(store());
    QVERIFY(!sink.open());
    QCOMPARE(sink.errorString(), QStringLiteral("%1: %2").arg(file, reason));
    QVERIFY(now.seek(0));
    QCOMPARE(now.readAll(), before);
    QCOMPARE(log->lines(), QStringList());
}

// The process that survivesKill() kills: stores as much as it can, and prints what is safe.
static int runLoad(int argc, char **argv)
{
    const QCoreApplication application(argc, argv);
    StoreSink sink(makeSqliteStore(QString::fromLocal8Bit(argv[2]), {}, QStringLiteral("load")));
    if (!sink.open())
        return 1;
    Talker talker(sink, 1);
    QTimer timer;
    QObject::connect(&sink, &Sink::safe, &sink, [](quint64, quint64 end) {
        std::printf("%llu\n", static_cast<unsigned long long>(end));
        std::fflush(stdout);
    });
    QObject::connect(&timer, &QTimer::timeout, &sink, [&] {
        for (int n = 0; n < 100 && !sink.isFull(); ++n)
            talker.say(QByteArray(200, 'x'));
    });
    timer.start(0);
    return QCoreApplication::exec();
}

int main(int argc, char **argv)
{
    if (argc == 3 && argv[1] == QByteArray(LoadArgument))
        return runLoad(argc, argv);
    const QCoreApplication application(argc, argv);
    tst_SqliteStore test;
    return QTest::qExec(&test, argc, argv);
}
#include "tst_sqlitestore.moc"
