// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "host/sinks/sql/sqlitedatabase.h"

#include "host/sinks/sql/connectionrows.h"

#include <QtCore/QDateTime>
#include <QtCore/QStringList>
#include <QtCore/QVariant>

#include <array>
#include <chrono>
#include <utility>

namespace host {
namespace {

using namespace std::chrono_literals;

// A statement for several messages costs less than one for each.
constexpr std::size_t MessagesAtOnce = 32;
constexpr int MessageColumns = 6; // besides the epoch

// For each message that comes, two old ones may go: so storing is held up by little.
constexpr qint64 RemovedPerMessage = 2;
constexpr qint64 RemovedAtRest = 1000; // messages
constexpr auto TidyInterval = 1s;
constexpr auto TidyPause = 20ms; // while there is more to do

QString insertionOf(std::size_t messages, qint64 epochId)
{
    const QString row = QStringLiteral("(%1,?,?,?,?,?,?)").arg(epochId);
    const QStringList rows(static_cast<qsizetype>(messages), row);
    return QStringLiteral(
                   "insert into messages (epoch, connection, position, finish, time, partial, "
                   "bytes) values ")
            + rows.join(QLatin1Char(',')) + QStringLiteral(" on conflict do nothing");
}

QString connectionStatement(qint64 epochId)
{
    return QStringLiteral(
                   "insert into connections (epoch, connection, plugin, source, peer, port, client,"
                   " task, began, ended, reason, length) values (%1,?,?,?,?,?,?,?,?,?,?,?)"
                   " on conflict do update set began = coalesce(began, excluded.began),"
                   " ended = coalesce(ended, excluded.ended),"
                   " reason = coalesce(reason, excluded.reason),"
                   " length = coalesce(length, excluded.length)")
            .arg(epochId);
}

// The batch keeps the bytes until they are stored. Not null, even if they are none.
QVariant blobOf(QByteArrayView bytes)
{
    if (bytes.isEmpty())
        return QByteArray("");
    return QByteArray::fromRawData(bytes.data(), bytes.size());
}

QVariant textOf(const QString &text)
{
    return text.isNull() ? QStringLiteral("") : text;
}

// Qt's driver binds other types of integers as texts.
QVariant numberOf(quint64 number)
{
    return static_cast<qint64>(number);
}

QVariant valueOf(const std::optional<qint64> &number)
{
    return number ? QVariant(*number) : QVariant();
}

} // namespace

struct SqliteDatabase::Statements
{
    QSqlQuery one; // message
    QSqlQuery many;
    QSqlQuery connection;
    std::array<std::array<QVariant, MessageColumns>, MessagesAtOnce> waiting;
    std::size_t waitingCount = 0;
};

SqliteDatabase::SqliteDatabase(const QString &fileName, QString processEpoch, const Keep &keep)
    : file(fileName),
      epoch(std::move(processEpoch)),
      keepsAll(keep.isAll()),
      database(fileName),
      keeper(database, keep),
      tidyTimer(this)
{
    tidyTimer.setSingleShot(true);
    connect(&tidyTimer, &QTimer::timeout, this, &SqliteDatabase::tidy);
}

SqliteDatabase::~SqliteDatabase() = default;

void SqliteDatabase::open()
{
    const SqliteFile::Opening opening = openFile();
    if (opening == SqliteFile::Opening::Refused) {
        Q_EMIT refused(database.errorString());
    } else if (opening == SqliteFile::Opening::NotNow) {
        fail();
    } else {
        if (!keepsAll)
            tidyTimer.start(TidyInterval);
        Q_EMIT opened();
    }
}

SqliteFile::Opening SqliteDatabase::openFile()
{
    const SqliteFile::Opening opening = database.open();
    if (opening != SqliteFile::Opening::Done)
        return opening;
    const bool isKnown =
            database.exec(QStringLiteral("insert into epochs (epoch, began) values ('%1', %2) on "
                                         "conflict do nothing")
                                  .arg(epoch)
                                  .arg(QDateTime::currentMSecsSinceEpoch()));
    const auto id =
            database.number(QStringLiteral("select id from epochs where epoch = '%1'").arg(epoch));
    if (isKnown && id)
        statements = prepare(*id);
    return statements ? SqliteFile::Opening::Done : SqliteFile::Opening::NotNow;
}

std::unique_ptr<SqliteDatabase::Statements> SqliteDatabase::prepare(qint64 epochId)
{
    auto one = database.prepared(insertionOf(1, epochId));
    auto many = database.prepared(insertionOf(MessagesAtOnce, epochId));
    auto connection = database.prepared(connectionStatement(epochId));
    if (!one || !many || !connection)
        return {};
    auto made = std::make_unique<Statements>();
    made->one = std::move(*one);
    made->many = std::move(*many);
    made->connection = std::move(*connection);
    return made;
}

void SqliteDatabase::write(const std::vector<Batch> &batches)
{
    if (insert(batches))
        Q_EMIT written();
    else
        fail();
}

bool SqliteDatabase::insert(const std::vector<Batch> &batches)
{
    if (!database.exec(QStringLiteral("begin immediate")))
        return false;
    for (const ConnectionRow &row : connectionRows(batches)) {
        if (!insertConnection(row))
            return false;
    }
    qint64 messages = 0;
    for (const Batch &batch : batches) {
        messages += batch.messages();
        for (const Batch::Entry &entry : batch.entries()) {
            if (entry.kind == Batch::Kind::Message && !insertMessage(batch, entry))
                return false;
        }
    }
    return insertWaiting() && (keepsAll || keeper.removeMessages(RemovedPerMessage * messages))
            && database.exec(QStringLiteral("commit"));
}

bool SqliteDatabase::insertMessage(const Batch &batch, const Batch::Entry &entry)
{
    const Origin &origin = batch.originOf(entry);
    statements->waiting[statements->waitingCount++] = {numberOf(origin.connection),
                                                       numberOf(entry.position),
                                                       numberOf(entry.end),
                                                       QVariant(origin.time.toMSecsSinceEpoch()),
                                                       numberOf(entry.partial ? 1 : 0),
                                                       blobOf(batch.bytesOf(entry))};
    return statements->waitingCount < MessagesAtOnce || insertWaiting();
}

bool SqliteDatabase::insertWaiting()
{
    const std::size_t count = std::exchange(statements->waitingCount, 0);
    const bool isFull = count == MessagesAtOnce;
    QSqlQuery &query = isFull ? statements->many : statements->one;
    int place = 0;
    for (std::size_t n = 0; n < count; ++n) {
        for (const QVariant &value : statements->waiting[n])
            query.bindValue(place++, value);
        if (isFull && n + 1 < count)
            continue;
        place = 0;
        if (!database.exec(query))
            return false;
    }
    return true;
}

bool SqliteDatabase::insertConnection(const ConnectionRow &row)
{
    const Origin &origin = *row.origin;
    const bool isOver = row.ended.has_value();
    const std::array values{numberOf(origin.connection),
                            textOf(origin.plugin),
                            textOf(origin.source),
                            textOf(origin.peer),
                            numberOf(origin.port),
                            textOf(origin.client),
                            textOf(origin.task),
                            valueOf(row.began),
                            valueOf(row.ended),
                            isOver ? QVariant(QString::fromUtf8(row.reason)) : QVariant(),
                            isOver ? numberOf(row.length) : QVariant()};
    int place = 0;
    for (const QVariant &value : values)
        statements->connection.bindValue(place++, value);
    return database.exec(statements->connection);
}

void SqliteDatabase::close()
{
    tidyTimer.stop();
    statements.reset();
    database.close();
}

// Also when nothing comes: messages grow old, and free pages are given back.
void SqliteDatabase::tidy()
{
    const auto removed = removeOld();
    const auto freed = removed ? keeper.giveBack() : removed;
    if (!freed) {
        fail();
        return;
    }
    tidyTimer.start(*removed > 0 || *freed > 0 ? std::chrono::milliseconds(TidyPause)
                                               : TidyInterval);
}

std::optional<qint64> SqliteDatabase::removeOld()
{
    if (!database.exec(QStringLiteral("begin immediate")))
        return {};
    const auto messages = keeper.removeMessages(RemovedAtRest);
    const auto connections = messages ? keeper.removeConnections() : messages;
    if (!connections || !database.exec(QStringLiteral("commit")))
        return {};
    return *messages + *connections;
}

void SqliteDatabase::fail()
{
    const QString reason = database.errorString();
    close(); // a transaction is rolled back
    Q_EMIT failed(reason);
}

} // namespace host
