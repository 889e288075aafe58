// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "plugin/parseddata.h"
#include "tests/kit/hangguard.h"
#include "tests/kit/memorylayout.h"
#include "tests/plugin/recordlayout.h"

#include <QtCore/QSemaphore>
#include <QtCore/QThread>
#include <QtTest/QTest>

#include <atomic>
#include <cstddef>
#include <functional>
#include <memory>
#include <vector>

using namespace recordlayout;

namespace {

QReadWriteLock &lockOf(ParsedData &record)
{
    return memberAt<QReadWriteLock>(record, offsetof(Layout, lock));
}

std::unique_ptr<QThread> runInThread(std::function<void()> function)
{
    std::unique_ptr<QThread> thread(QThread::create(std::move(function)));
    thread->start();
    return thread;
}

// Whether a writer waits, if a reader holds the lock: only then does it refuse further readers.
bool writerWaits(QReadWriteLock &lock)
{
    if (!lock.tryLockForRead())
        return true;
    lock.unlock();
    return false;
}

using Access = std::function<void(ParsedData &)>;

} // namespace

Q_DECLARE_METATYPE(Access)

class RecordRelay : public QObject
{
    Q_OBJECT

public:
    QList<shared_parsedData> received; // its own thread only
    bool keep = true; // set before its thread starts
    std::atomic<int> count = 0;

public Q_SLOTS:
    void receive(shared_parsedData data)
    {
        if (keep)
            received.append(data);
        ++count;
    }

Q_SIGNALS:
    void send(shared_parsedData data);
};

// A record that is shared by several holders and several threads.
class tst_ParsedDataThreads : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void lastHolderDeletes();
    void queuedDelivery();
    void queuedEventHoldsTheRecord();

    void settersWaitForReaders_data();
    void settersWaitForReaders();
    void gettersWaitForWriters_data();
    void gettersWaitForWriters();
    void readersRunInParallel();
    void deliberatelyUnlocked();
    void concurrentAccess();
};

void tst_ParsedDataThreads::lastHolderDeletes()
{
    int deleted = 0;
    shared_parsedData first(new ParsedData, [&deleted](ParsedData *record) {
        ++deleted;
        delete record;
    });
    const QWeakPointer<ParsedData> observer = first;
    {
        const shared_parsedData second = first;
        first.reset();
        QCOMPARE(deleted, 0);
        second->setFormat(QStringLiteral("still there"));
    }
    QCOMPARE(deleted, 1);
    QVERIFY(observer.isNull());
}

void tst_ParsedDataThreads::queuedDelivery()
{
    RecordRelay sender;
    RecordRelay receiver;
    QThread thread;
    receiver.moveToThread(&thread);
    QVERIFY(connect(&sender, &RecordRelay::send, &receiver, &RecordRelay::receive,
                    Qt::QueuedConnection));
    thread.start();

    QList<shared_parsedData> sent;
    for (int i = 0; i < 100; ++i) {
        const shared_parsedData record(new ParsedData);
        record->setOriginalMessage(QByteArray::number(i));
        sent.append(record);
        Q_EMIT sender.send(record);
    }
    // Also with calls by name, under each of the type's two names.
    QVERIFY(QMetaObject::invokeMethod(&receiver, "receive", Qt::QueuedConnection,
                                      Q_ARG(shared_parsedData, sent[0])));
    QVERIFY(QMetaObject::invokeMethod(&receiver, "receive", Qt::QueuedConnection,
                                      Q_ARG(QSharedPointer<ParsedData>, sent[1])));

    // Runs when everything queued before it has run.
    QVERIFY(QMetaObject::invokeMethod(
            &receiver, [] {}, Qt::BlockingQueuedConnection));
    thread.quit();
    QVERIFY(thread.wait());

    // The same records, not copies of them.
    sent.append({sent[0], sent[1]});
    QCOMPARE(receiver.received, sent);
}

void tst_ParsedDataThreads::queuedEventHoldsTheRecord()
{
    RecordRelay sender;
    RecordRelay receiver;
    receiver.keep = false;
    connect(&sender, &RecordRelay::send, &receiver, &RecordRelay::receive, Qt::QueuedConnection);

    shared_parsedData record(new ParsedData);
    const QWeakPointer<ParsedData> observer = record;
    Q_EMIT sender.send(record);
    record.reset();
    QVERIFY(!observer.isNull());

    QTRY_COMPARE_WITH_TIMEOUT(receiver.count.load(), 1, HangGuardMs);
    QVERIFY(observer.isNull());

    // A record that is not delivered is released with its event.
    {
        RecordRelay gone;
        connect(&sender, &RecordRelay::send, &gone, &RecordRelay::receive, Qt::QueuedConnection);
        sender.disconnect(&receiver);
        record.reset(new ParsedData);
        const QWeakPointer<ParsedData> second = record;
        Q_EMIT sender.send(record);
        record.reset();
        QVERIFY(!second.isNull());
    }
}

void tst_ParsedDataThreads::settersWaitForReaders_data()
{
    QTest::addColumn<Access>("setter");
    QTest::newRow("setFormat") << Access([](ParsedData &r) { r.setFormat(QStringLiteral("x")); });
    QTest::newRow("setPluginId") << Access(
            [](ParsedData &r) { r.setPluginId(QStringLiteral("x")); });
    QTest::newRow("addPluginSubId") << Access(
            [](ParsedData &r) { r.addPluginSubId(QStringLiteral("x"), QStringLiteral("x")); });
    QTest::newRow("setPeerAddress")
            << Access([](ParsedData &r) { r.setPeerAddress(QStringLiteral("x")); });
    QTest::newRow("setPeerPort") << Access([](ParsedData &r) { r.setPeerPort(1); });
    QTest::newRow("setOriginalMessage")
            << Access([](ParsedData &r) { r.setOriginalMessage(QByteArrayLiteral("x")); });
    QTest::newRow("setDeviceId") << Access(
            [](ParsedData &r) { r.setDeviceId(QStringLiteral("x")); });
    QTest::newRow("setSource") << Access([](ParsedData &r) { r.setSource(QStringLiteral("x")); });
    QTest::newRow("setData") << Access([](ParsedData &r) {
        r.setData({{QStringLiteral("x"), QStringLiteral("x")}});
    });
    QTest::newRow("setParsed") << Access([](ParsedData &r) { r.setParsed(true); });
    QTest::newRow("setGPSPosData") << Access([](ParsedData &r) { r.setGPSPosData(true); });
    QTest::newRow("setDevice") << Access([](ParsedData &r) {
        static Device device;
        r.setDevice(&device);
    });
}

void tst_ParsedDataThreads::settersWaitForReaders()
{
    QFETCH(Access, setter);
    ParsedData record;
    QReadWriteLock &lock = lockOf(record);
    lock.lockForRead();
    std::atomic<bool> done = false;
    const auto thread = runInThread([&] {
        setter(record);
        done = true;
    });

    QTRY_VERIFY_WITH_TIMEOUT(writerWaits(lock) || done, HangGuardMs);
    const bool waited = !done;
    lock.unlock();

    QVERIFY(thread->wait());
    QVERIFY(waited);
    QVERIFY(done);
}

void tst_ParsedDataThreads::gettersWaitForWriters_data()
{
    QTest::addColumn<Access>("getter");
    QTest::newRow("getFormat") << Access([](ParsedData &r) { r.getFormat(); });
    QTest::newRow("getPluginId") << Access([](ParsedData &r) { r.getPluginId(); });
    QTest::newRow("getPluginSubId") << Access([](ParsedData &r) { r.getPluginSubId(); });
    QTest::newRow("getPluginSubIdKey")
            << Access([](ParsedData &r) { r.getPluginSubIdKey(QStringLiteral("x")); });
    QTest::newRow("getPeerAddress") << Access([](ParsedData &r) { r.getPeerAddress(); });
    QTest::newRow("getPeerPort") << Access([](ParsedData &r) { r.getPeerPort(); });
    QTest::newRow("getOriginalMessage") << Access([](ParsedData &r) { r.getOriginalMessage(); });
    QTest::newRow("getDataLength") << Access([](ParsedData &r) { r.getDataLength(); });
    QTest::newRow("getDeviceId") << Access([](ParsedData &r) { r.getDeviceId(); });
    QTest::newRow("getSource") << Access([](ParsedData &r) { r.getSource(); });
    QTest::newRow("getData") << Access([](ParsedData &r) { r.getData(); });
    QTest::newRow("isParsed") << Access([](ParsedData &r) { r.isParsed(); });
    QTest::newRow("isGPSPosData") << Access([](ParsedData &r) { r.isGPSPosData(); });
    QTest::newRow("getDevice") << Access([](ParsedData &r) { r.getDevice(); });
    QTest::newRow("getDataId") << Access([](ParsedData &r) { r.getDataId(); });
}

// A test cannot see that a reader waits. So it holds the lock for writing and gives the getter many
// chances to finish. A getter that takes the lock cannot finish; one that takes no lock can.
void tst_ParsedDataThreads::gettersWaitForWriters()
{
    QFETCH(Access, getter);
    ParsedData record;
    QReadWriteLock &lock = lockOf(record);
    for (int i = 0; i < 20; ++i) {
        lock.lockForWrite();
        QSemaphore started;
        std::atomic<bool> done = false;
        const auto thread = runInThread([&] {
            started.release();
            getter(record);
            done = true;
        });
        started.acquire();
        for (int turn = 0; turn < 50 && !done; ++turn)
            QThread::yieldCurrentThread();
        const bool waited = !done;
        lock.unlock();

        QVERIFY(thread->wait());
        QVERIFY(waited);
    }
}

void tst_ParsedDataThreads::readersRunInParallel()
{
    ParsedData record;
    record.setPluginId(QStringLiteral("p"));
    const QReadLocker locker(&lockOf(record));
    QString id;
    const auto thread = runInThread([&] { id = record.getDataId(); });
    QVERIFY(thread->wait());
    QCOMPARE(id, QStringLiteral("p-:0"));
}

void tst_ParsedDataThreads::deliberatelyUnlocked()
{
    ParsedData record;
    record.setData({{QStringLiteral("a"), QStringLiteral("b")}});
    const QWriteLocker locker(&lockOf(record)); // a function that takes the lock would hang
    QCOMPARE(record.getField(QStringLiteral("a")), QStringLiteral("b"));
    QCOMPARE(record.getField(QStringLiteral("c")), QStringLiteral("<undef>"));
    QVERIFY(record.getTimestamp(QTimeZone::utc()).endsWith(QLatin1Char('Z')));
}

// Writers set each member only to a few known values. Readers must never see any other value.
void tst_ParsedDataThreads::concurrentAccess()
{
    constexpr int Rounds = 3000;
    constexpr int Pairs = 3;
    const shared_parsedData record(new ParsedData);
    const auto text = [](int i) { return QString(20, QLatin1Char(char('a' + i % 10))); };
    const auto whole = [](const QString &value) {
        return value.isEmpty() || value == QString(20, value.front());
    };
    record->setData({{QStringLiteral("field"), QStringLiteral("value")}});
    std::atomic<int> torn = 0;

    std::vector<std::unique_ptr<QThread>> threads;
    for (int pair = 0; pair < Pairs; ++pair) {
        threads.push_back(runInThread([record, text] {
            for (int i = 0; i < Rounds; ++i) {
                record->setFormat(text(i));
                record->setPluginId(text(i + 1));
                record->setPeerAddress(text(i + 2));
                record->setOriginalMessage(text(i).toLatin1());
                record->addPluginSubId(QStringLiteral("task"), text(i));
                record->addPluginSubId(QString::number(i % 50), text(i + 1));
                record->setDeviceId(text(i));
                record->setSource(text(i));
                record->setPeerPort(i % 2 ? 0xFFFF : 0);
                record->setParsed(i % 2);
            }
        }));
        threads.push_back(runInThread([record, whole, &torn] {
            for (int i = 0; i < Rounds; ++i) {
                const int length = record->getDataLength();
                const unsigned short port = record->getPeerPort();
                const QMap<QString, QString> subIds = record->getPluginSubId();
                if (!whole(record->getFormat()) || !whole(record->getPluginId())
                    || !whole(record->getPeerAddress()) || !whole(record->getDeviceId())
                    || !whole(QString::fromLatin1(record->getOriginalMessage()))
                    || !whole(record->getPluginSubIdKey(QStringLiteral("task")))
                    || !whole(record->getSource()) || subIds.size() > 51
                    || (length != 0 && length != 20) || (port != 0 && port != 0xFFFF)
                    || record->getField(QStringLiteral("field")) != QStringLiteral("value")
                    || record->getTimestamp(QTimeZone::utc()).isEmpty())
                    ++torn;
            }
        }));
    }
    for (const auto &thread : threads)
        QVERIFY(thread->wait());

    QCOMPARE(torn.load(), 0);
    QCOMPARE(record->getPluginSubId().size(), 51);
}

QTEST_GUILESS_MAIN(tst_ParsedDataThreads)
#include "tst_parseddatathreads.moc"
