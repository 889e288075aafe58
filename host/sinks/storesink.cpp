// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "host/sinks/storesink.h"

#include <QtCore/QDeadlineTimer>

#include <utility>

#include <openssl/crypto.h>

namespace host {
namespace {

// A store is woken at most so often; a batch that is large goes at once.
constexpr std::chrono::milliseconds HandOverInterval(5);
constexpr qint64 LargeBatch = 256 * 1024;

} // namespace

StoreSink::StoreSink(std::unique_ptr<Store> messageStore, qint64 memoryLimit)
    : mostMemory(memoryLimit),
      store(std::move(messageStore))
{
    thread.setObjectName(QStringLiteral("store"));
    timer.setSingleShot(true);
    connect(&timer, &QTimer::timeout, this, &StoreSink::handOver);
    connect(store.get(), &Store::stored, this, &StoreSink::report, Qt::DirectConnection);
    connect(
            store.get(), &Store::connectedChanged, this,
            [this](bool isConnected) { connected = isConnected; }, Qt::QueuedConnection);
}

StoreSink::~StoreSink()
{
    close();
}

bool StoreSink::open()
{
    qRegisterMetaType<Stored>();
    store->moveToThread(&thread);
    thread.start();
    QMetaObject::invokeMethod(
            store.get(), [this] { error = store->open(); }, Qt::BlockingQueuedConnection);
    return error.isEmpty();
}

void StoreSink::began(const Origin &origin)
{
    batch.addBegin(origin);
    added();
}

void StoreSink::write(const Message &message)
{
    batch.add(message);
    added();
}

void StoreSink::ended(const Origin &origin, const QString &reason, quint64 position)
{
    batch.addEnd(origin, reason, position);
    added();
}

void StoreSink::added()
{
    setUnsafe(notStored + batch.messages());
    if (!timer.isActive())
        timer.start(HandOverInterval);
    if (batch.memory() >= LargeBatch)
        handOver();
}

void StoreSink::handOver()
{
    timer.stop();
    if (batch.isEmpty() || !thread.isRunning())
        return;
    notStored += batch.messages();
    unsafeMemory += batch.memory();
    auto moved = std::make_shared<Batch>(std::exchange(batch, {}));
    QMetaObject::invokeMethod(
            store.get(), [store = store.get(), moved] { store->add(std::move(*moved)); },
            Qt::QueuedConnection);
    updateFull();
}

// In the store's thread. finish() waits here for news without an event loop; a queued signal
// could come just behind its last look.
void StoreSink::report(const Stored &progress)
{
    const QMutexLocker locker(&guard);
    if (reports.empty())
        QMetaObject::invokeMethod(this, &StoreSink::noteReports, Qt::QueuedConnection);
    reports.push_back(progress);
    reported.wakeOne();
}

void StoreSink::noteReports()
{
    QMutexLocker locker(&guard);
    const std::vector<Stored> news = std::exchange(reports, {});
    locker.unlock();
    for (const Stored &progress : news) {
        notStored -= progress.messages;
        unsafeMemory -= progress.memory;
        for (const SafePosition &each : progress.safe)
            Q_EMIT safe(each.connection, each.end);
    }
    setUnsafe(notStored + batch.messages());
    updateFull();
}

// Half of the limit lies between full and not full: so it does not change with every batch.
void StoreSink::updateFull()
{
    setFull(unsafeMemory > (isFull() ? mostMemory / 2 : mostMemory));
}

// Without an event loop: what else the program does is over.
qint64 StoreSink::finish(std::chrono::milliseconds atMost)
{
    handOver();
    const QDeadlineTimer deadline(atMost);
    noteReports();
    while (unsafeMemory > 0 && thread.isRunning() && waitForReport(deadline))
        noteReports();
    close();
    noteReports(); // what the store has said last
    return notStored + batch.messages();
}

bool StoreSink::waitForReport(const QDeadlineTimer &deadline)
{
    QMutexLocker locker(&guard);
    while (reports.empty()) {
        if (!reported.wait(&guard, deadline))
            return false;
    }
    return true;
}

void StoreSink::close()
{
    if (!thread.isRunning())
        return;
    QMetaObject::invokeMethod(
            store.get(),
            [this] {
                store->close();
                // At a thread's end OpenSSL frees what it keeps for it, but QThread does not wait
                // for that, and the program may be over first.
                OPENSSL_thread_stop();
            },
            Qt::BlockingQueuedConnection);
    thread.quit();
    thread.wait();
}

} // namespace host
