// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "host/sinks/storesink.h"
#include "tests/kit/hangguard.h"

#include <QtCore/QSemaphore>
#include <QtTest/QtTest>

using namespace host;
using namespace std::chrono_literals;

namespace {

constexpr qint64 Megabyte = 1024 * 1024;

//! A store that is told when to be done with what it has.
class HeldStore : public Store
{
public:
    explicit HeldStore(QString openError = {}) : refusal(std::move(openError)) {}

    QString open() override
    {
        openedIn = QThread::currentThread();
        Q_EMIT connectedChanged(true);
        return refusal;
    }
    void add(Batch batch) override
    {
        addedIn = QThread::currentThread();
        for (const Batch::Entry &entry : batch.entries())
            seen += textOf(batch, entry);
        batches.push_back(std::move(batch));
        if (!holding && delayMs == 0)
            release();
        else if (!holding)
            QTimer::singleShot(delayMs, this, &HeldStore::release);
    }
    void close() override { isClosed = true; }

    void release()
    {
        for (const Batch &batch : std::exchange(batches, {})) {
            Stored progress;
            progress.memory = batch.memory();
            progress.messages = batch.messages();
            for (const Batch::Entry &entry : batch.entries()) {
                if (entry.kind == Batch::Kind::Message)
                    progress.safe = {{batch.originOf(entry).connection, entry.end}};
            }
            Q_EMIT stored(progress);
        }
    }

    // Used when the thread is at rest, or gone.
    QString refusal;
    bool holding = false;
    int delayMs = 0;
    QStringList seen;
    QThread *openedIn = nullptr;
    QThread *addedIn = nullptr;
    bool isClosed = false;

private:
    static QString textOf(const Batch &batch, const Batch::Entry &entry)
    {
        const QString connection = QString::number(batch.originOf(entry).connection);
        const QString bytes = QString::fromUtf8(batch.bytesOf(entry));
        switch (entry.kind) {
        case Batch::Kind::Begin:
            return QStringLiteral("begin %1").arg(connection);
        case Batch::Kind::End:
            return QStringLiteral("end %1 %2 %3").arg(connection, bytes).arg(entry.position);
        default:
            return QStringLiteral("%1 %2 %3-%4%5")
                    .arg(connection, bytes)
                    .arg(entry.position)
                    .arg(entry.end)
                    .arg(entry.partial ? u" partial" : u"");
        }
    }

    std::vector<Batch> batches;
};

Origin originOf(quint64 connection)
{
    Origin origin;
    origin.connection = connection;
    origin.client = QStringLiteral("c%1").arg(connection);
    return origin;
}

} // namespace

class tst_StoreSink : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void refusedAtOpening();
    void passesAllOnInOrder();
    void saysWhatIsSafe();
    void isFullAndNotFull();
    void finishingWaits();
    void finishingWaitsNoLonger();
    void storedAsTheEndBegins();
    void writtenBehindTheEnd();
    void finishingGivesUp();
    void destroyedWithMessages();
};

void tst_StoreSink::refusedAtOpening()
{
    StoreSink sink(std::make_unique<HeldStore>(QStringLiteral("no such folder")));
    QVERIFY(!sink.open());
    QCOMPARE(sink.errorString(), QStringLiteral("no such folder"));
}

void tst_StoreSink::passesAllOnInOrder()
{
    auto owned = std::make_unique<HeldStore>();
    HeldStore *store = owned.get();
    StoreSink sink(std::move(owned));
    QVERIFY(sink.open());
    const Origin first = originOf(1);
    const Origin second = originOf(2);
    sink.began(first);
    sink.write({first, {}, "a", 0, 2});
    sink.began(second);
    sink.write({second, {}, "b", 0, 2});
    sink.write({first, {}, "cd", 2, 4, true});
    sink.ended(first, QStringLiteral("peer"), 4);
    QCOMPARE(sink.finish(60s), 0);
    const QStringList expected = {
            QStringLiteral("begin 1"),          QStringLiteral("1 a 0-2"),
            QStringLiteral("begin 2"),          QStringLiteral("2 b 0-2"),
            QStringLiteral("1 cd 2-4 partial"), QStringLiteral("end 1 peer 4")};
    QCOMPARE(store->seen, expected);
    QVERIFY(store->openedIn != QThread::currentThread());
    QCOMPARE(store->addedIn, store->openedIn);
    QVERIFY(store->isClosed);
}

void tst_StoreSink::saysWhatIsSafe()
{
    StoreSink sink(std::make_unique<HeldStore>());
    QSignalSpy safe(&sink, &Sink::safe);
    QVERIFY(sink.open());
    const Origin origin = originOf(7);
    sink.write({origin, {}, "a", 10, 12});
    QTRY_COMPARE_WITH_TIMEOUT(safe.count(), 1, HangGuardMs);
    QCOMPARE(safe.first(), QVariantList({quint64(7), quint64(12)}));
    QVERIFY(sink.isConnected());
}

void tst_StoreSink::isFullAndNotFull()
{
    auto owned = std::make_unique<HeldStore>();
    HeldStore *store = owned.get();
    store->holding = true;
    StoreSink sink(std::move(owned), Megabyte);
    QSignalSpy full(&sink, &Sink::fullChanged);
    QVERIFY(sink.open());
    const Origin origin = originOf(1);
    const QByteArray bytes(300 * 1024, 'x');
    for (int n = 0; n < 3; ++n)
        sink.write({origin, {}, bytes, 0, 1});
    QVERIFY(!sink.isFull());
    sink.write({origin, {}, bytes, 0, 1});
    QVERIFY(sink.isFull());
    QCOMPARE(full.count(), 1);
    QMetaObject::invokeMethod(
            store, [store] { store->release(); }, Qt::QueuedConnection);
    QTRY_VERIFY_WITH_TIMEOUT(!sink.isFull(), HangGuardMs);
    QCOMPARE(full.count(), 2);
}

void tst_StoreSink::finishingWaits()
{
    auto owned = std::make_unique<HeldStore>();
    owned->delayMs = 50;
    StoreSink sink(std::move(owned));
    QVERIFY(sink.open());
    sink.write({originOf(1), {}, "a", 0, 2});
    QCOMPARE(sink.finish(60s), 0);
}

// The store is done before anybody waits for it.
void tst_StoreSink::finishingWaitsNoLonger()
{
    QElapsedTimer sinceBegin;
    sinceBegin.start();
    for (int round = 0; round < 50; ++round) {
        StoreSink sink(std::make_unique<HeldStore>());
        QVERIFY(sink.open());
        sink.write({originOf(1), {}, "a", 0, 2});
        QCOMPARE(sink.finish(std::chrono::milliseconds(2 * HangGuardMs)), 0);
        QVERIFY(sinceBegin.elapsed() < HangGuardMs); // a hang, not a measurement
    }
}

// The store has begun to say so before finish() is called, and comes to an end of it after.
void tst_StoreSink::storedAsTheEndBegins()
{
    QElapsedTimer sinceBegin;
    sinceBegin.start();
    auto store = std::make_unique<HeldStore>();
    QSemaphore saying;
    connect(
            store.get(), &Store::stored, store.get(),
            [&saying] {
                saying.release();
                QThread::msleep(20); // most likely the other thread waits by then
            },
            Qt::DirectConnection);
    StoreSink sink(std::move(store));
    QVERIFY(sink.open());
    sink.write({originOf(1), {}, QByteArray(Megabyte, 'x'), 0, 2}); // goes at once
    QVERIFY(saying.tryAcquire(1, HangGuardMs));
    QCOMPARE(sink.finish(std::chrono::milliseconds(HangGuardMs)), 0);
    QVERIFY(sinceBegin.elapsed() < HangGuardMs);
}

// It is not safe, and nobody may be told so.
void tst_StoreSink::writtenBehindTheEnd()
{
    StoreSink sink(std::make_unique<HeldStore>());
    QVERIFY(sink.open());
    QCOMPARE(sink.finish(1ms), 0);
    sink.write({originOf(1), {}, "a", 0, 2});
    QCOMPARE(sink.finish(1ms), 1);
}

void tst_StoreSink::finishingGivesUp()
{
    auto owned = std::make_unique<HeldStore>();
    owned->holding = true;
    StoreSink sink(std::move(owned));
    QVERIFY(sink.open());
    sink.write({originOf(1), {}, "a", 0, 2});
    sink.write({originOf(1), {}, "b", 2, 4});
    QCOMPARE(sink.finish(1ms), 2);
}

void tst_StoreSink::destroyedWithMessages()
{
    auto owned = std::make_unique<HeldStore>();
    owned->holding = true;
    StoreSink sink(std::move(owned));
    QVERIFY(sink.open());
    sink.write({originOf(1), {}, "a", 0, 2});
}

QTEST_GUILESS_MAIN(tst_StoreSink)
#include "tst_storesink.moc"
