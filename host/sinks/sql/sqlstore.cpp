// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "host/sinks/sql/sqlstore.h"

#include "plugin/cwrn.h"

#include <QtCore/QEventLoop>
#include <QtCore/QHash>

#include <algorithm>
#include <utility>

namespace host {
namespace {

using namespace std::chrono_literals;

constexpr auto TransactionInterval = 100ms;
// Some thousand messages of the usual size. Larger transactions would not be faster.
constexpr qint64 LargeTransaction = 4 * 1024 * 1024; // Batch::memory()

constexpr auto FirstWait = 50ms;
constexpr auto LongestWait = 1000ms;
// At the start: a server that takes longer is away for now.
constexpr auto OpeningTimeout = 5s;

Stored storedBy(const std::vector<Batch> &transaction)
{
    Stored stored;
    QHash<quint64, qsizetype> places; // in "safe", by connection
    for (const Batch &batch : transaction) {
        stored.messages += batch.messages();
        stored.memory += batch.memory();
        for (const Batch::Entry &entry : batch.entries()) {
            if (entry.kind != Batch::Kind::Message)
                continue;
            const quint64 connection = batch.originOf(entry).connection;
            const auto place = places.constFind(connection);
            if (place != places.cend()) {
                stored.safe[*place].end = entry.end;
            } else {
                places.insert(connection, stored.safe.size());
                stored.safe.append({connection, entry.end});
            }
        }
    }
    return stored;
}

} // namespace

SqlStore::SqlStore(std::unique_ptr<Database> messageDatabase)
    : database(std::move(messageDatabase)),
      timer(this), // a child: it moves along to the store's thread
      nextWait(FirstWait)
{
    database->setParent(this); // likewise
    timer.setSingleShot(true);
    connect(&timer, &QTimer::timeout, this, &SqlStore::goOn);
    connect(database.get(), &Database::opened, this, &SqlStore::noteOpened);
    connect(database.get(), &Database::written, this, &SqlStore::noteWritten);
    connect(database.get(), &Database::failed, this, &SqlStore::noteFailed);
}

SqlStore::~SqlStore() = default;

QString SqlStore::open()
{
    QString refusal;
    QEventLoop loop;
    connect(database.get(), &Database::opened, &loop, &QEventLoop::quit);
    connect(database.get(), &Database::failed, &loop, &QEventLoop::quit);
    connect(database.get(), &Database::refused, &loop, [&](const QString &reason) {
        refusal = database->name() + QStringLiteral(": ") + reason;
        state = State::Closed;
        loop.quit();
    });
    QTimer::singleShot(OpeningTimeout, &loop, &QEventLoop::quit);
    state = State::Opening;
    database->open();
    if (state == State::Opening)
        loop.exec();
    // Later a refusal is no end: there was a good database, and it may come back.
    connect(database.get(), &Database::refused, this, &SqlStore::noteFailed);
    return refusal;
}

void SqlStore::add(Batch batch)
{
    queuedMemory += batch.memory();
    queue.push_back(std::move(batch));
    if (state == State::Ready)
        scheduleTransaction();
}

void SqlStore::close()
{
    timer.stop();
    state = State::Closed;
    database->close();
}

void SqlStore::goOn()
{
    if (state == State::Ready) {
        beginTransaction();
    } else if (state == State::Waiting) {
        state = State::Opening;
        database->open();
    }
}

// Even what is due at once waits for the event loop, so that close() is never held up by more than
// one transaction.
void SqlStore::scheduleTransaction()
{
    if (queuedMemory >= LargeTransaction)
        timer.start(0);
    else if (!queue.empty() && !timer.isActive())
        timer.start(TransactionInterval);
}

void SqlStore::beginTransaction()
{
    qint64 memory = 0;
    while (!queue.empty() && memory < LargeTransaction) {
        memory += queue.front().memory();
        transaction.push_back(std::move(queue.front()));
        queue.pop_front();
    }
    queuedMemory -= memory;
    if (!transaction.empty())
        write();
}

void SqlStore::write()
{
    timer.stop();
    state = State::Writing;
    database->write(transaction);
}

void SqlStore::noteOpened()
{
    if (!transaction.empty()) {
        write(); // whether it works is not known before this is done
        return;
    }
    state = State::Ready;
    noteWorking();
    scheduleTransaction();
}

void SqlStore::noteWritten()
{
    state = State::Ready;
    const Stored progress = storedBy(std::exchange(transaction, {}));
    noteWorking();
    scheduleTransaction();
    Q_EMIT stored(progress);
}

void SqlStore::noteFailed(const QString &reason)
{
    state = State::Waiting;
    timer.start(nextWait);
    nextWait = std::min(2 * nextWait, std::chrono::milliseconds(LongestWait));
    if (failing.isValid())
        return;
    failing.start();
    CWRN(QtWarningMsg, QStringLiteral("Cannot store in %1, trying again: %2"), database->name(),
         reason);
    setConnected(false);
}

void SqlStore::noteWorking()
{
    nextWait = FirstWait;
    if (failing.isValid())
        CWRN(QtWarningMsg, QStringLiteral("Storing in %1 goes on, after %2 ms"), database->name(),
             failing.elapsed());
    failing.invalidate();
    setConnected(true);
}

void SqlStore::setConnected(bool isConnected)
{
    if (std::exchange(connected, isConnected) != isConnected)
        Q_EMIT connectedChanged(isConnected);
}

} // namespace host
