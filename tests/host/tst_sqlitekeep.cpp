// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "tests/host/sqlitereader.h"
#include "tests/host/sqlitestoretest.h"

#include <QtCore/QFileInfo>
#include <QtCore/QTemporaryDir>

using namespace host;
using namespace std::chrono_literals;
using namespace storetest;

// What a file has more than it shall keep is removed.
class tst_SqliteKeep : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init();
    void keepsByAge();
    void keepsBySize();
    void keepsAtRest();
    void removesManyConnections();

private:
    std::unique_ptr<Store> store(const QString &epoch, const Keep &keep = {}) const
    {
        return makeSqliteStore(file, keep, epoch);
    }

    const QTemporaryDir folder;
    QString file;
};

void tst_SqliteKeep::init()
{
    file = folder.filePath(QString::fromLatin1(QTest::currentTestFunction()));
}

void tst_SqliteKeep::keepsByAge()
{
    Keep keep;
    keep.age = 24h;
    Log log;
    StoreSink sink(store(QStringLiteral("e1"), keep));
    QVERIFY(sink.open());
    const QDateTime now = QDateTime::currentDateTimeUtc();
    Talker old(sink, 1);
    Talker ended(sink, 2);
    Talker fresh(sink, 3);
    old.origin.time = now.addDays(-2);
    ended.origin.time = now.addDays(-2);
    fresh.origin.time = now.addSecs(-3600);
    for (Talker *talker : {&old, &ended, &fresh}) {
        talker->begin();
        talker->count(0, 1500);
    }
    ended.end(QStringLiteral("peer"));
    SqliteReader reader(file);
    QTRY_COMPARE_WITH_TIMEOUT(reader.number("select count(*) from messages"), 1500, HangGuardMs);
    QTRY_COMPARE_WITH_TIMEOUT(reader.number("select count(*) from connections"), 2, HangGuardMs);
    QCOMPARE(reader.messages("connection = 3"), numbers(0, 1500));
    QCOMPARE(reader.number("select count(*) from connections where ended is not null"), 0);
    old.count(1500, 1); // it has no message left, but is open
    fresh.count(1500, 1);
    QCOMPARE(sink.finish(LongTime), 0);
    QCOMPARE(reader.messages("connection = 3"), numbers(0, 1501));
    QCOMPARE(log.lines(), QStringList());
}

void tst_SqliteKeep::keepsBySize()
{
    constexpr qint64 Megabyte = 1000000;
    Keep keep;
    keep.bytes = 5 * Megabyte;
    Log log;
    StoreSink sink(store(QStringLiteral("e1"), keep));
    QVERIFY(sink.open());
    Talker talker(sink, 1);
    talker.begin();
    const QByteArray kilobyte(1000, 'x');
    for (int n = 0; n < 20; ++n) { // 20 MB
        for (int each = 0; each < 1000; ++each)
            talker.say(kilobyte);
        QTRY_VERIFY_WITH_TIMEOUT(!sink.isFull(), HangGuardMs);
    }
    talker.say("last");
    QCOMPARE(sink.finish(LongTime), 0);
    SqliteReader reader(file);
    QCOMPARE(reader.messages("id = (select max(id) from messages)"), QByteArrayList{"last"});
    const qint64 stored = reader.number("select count(*) from messages");
    QVERIFY2(stored > 3500 && stored < 10000, qPrintable(QString::number(stored)));
    // What is left is the end of it, without a gap.
    QCOMPARE(reader.number(
                     "select max(finish) - min(position) - sum(finish - position) from messages"),
             0);
    QCOMPARE(log.lines(), QStringList());
}

// Although nothing comes any more. What is freed is given back.
void tst_SqliteKeep::keepsAtRest()
{
    {
        StoreSink sink(store(QStringLiteral("e1")));
        QVERIFY(sink.open());
        Talker talker(sink, 1);
        for (int each = 0; each < 20000; ++each)
            talker.say(QByteArray(1000, 'x'));
        QCOMPARE(sink.finish(LongTime), 0);
    }
    QVERIFY(QFileInfo(file).size() > 20000000);
    Keep keep;
    keep.bytes = 5000000;
    StoreSink sink(store(QStringLiteral("e2"), keep));
    QVERIFY(sink.open());
    SqliteReader reader(file);
    QTRY_VERIFY_WITH_TIMEOUT(
            reader.number("pragma freelist_count") * 4096
                            + reader.number("select sum(length(bytes)) from messages")
                    < 6500000,
            HangGuardMs);
    QTRY_VERIFY_WITH_TIMEOUT(reader.number("pragma page_count") * 4096 < 7000000, HangGuardMs);
    QTRY_VERIFY_WITH_TIMEOUT(QFileInfo(file).size() < 7000000, HangGuardMs);
}

// More than devices that come and go all the time leave in the time between two looks.
void tst_SqliteKeep::removesManyConnections()
{
    constexpr int Connections = 60000;
    {
        StoreSink sink(store(QStringLiteral("e1")));
        QVERIFY(sink.open());
        for (int n = 1; n <= Connections; ++n) {
            Talker talker(sink, quint64(n));
            talker.begin();
            talker.end(QStringLiteral("peer"));
        }
        QCOMPARE(sink.finish(LongTime), 0);
    }
    SqliteReader reader(file);
    QCOMPARE(reader.number("select count(*) from connections"), Connections);
    Keep keep;
    keep.age = 24h;
    StoreSink sink(store(QStringLiteral("e2"), keep));
    QVERIFY(sink.open());
    QTRY_COMPARE_WITH_TIMEOUT(reader.number("select count(*) from connections"), 0, HangGuardMs);
}

QTEST_GUILESS_MAIN(tst_SqliteKeep)
#include "tst_sqlitekeep.moc"
