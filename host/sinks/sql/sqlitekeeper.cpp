// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "host/sinks/sql/sqlitekeeper.h"

#include "host/sinks/sql/sqlitefile.h"

#include <QtCore/QDateTime>
#include <QtCore/QString>

#include <algorithm>
#include <optional>

namespace host {
namespace {

constexpr qint64 MessagesAtOnce = 100; // then the size is looked at again
constexpr qint64 ConnectionsAtOnce = 200;
// Pages of 4 KiB. Fewer free ones are soon used again.
constexpr qint64 UsualFreePages = 256;
constexpr qint64 PagesAtOnce = 500;

} // namespace

qint64 SqliteKeeper::oldestTime() const
{
    return QDateTime::currentMSecsSinceEpoch() - std::chrono::milliseconds(keep.age).count();
}

std::optional<bool> SqliteKeeper::isTooLarge()
{
    const auto used = file.number(QStringLiteral(
            "select (page_count - freelist_count) * page_size from pragma_page_count,"
            " pragma_freelist_count, pragma_page_size"));
    if (!used)
        return {};
    return *used > keep.bytes;
}

std::optional<qint64> SqliteKeeper::removeMessages(qint64 atMost)
{
    qint64 removed = 0;
    qint64 latest = 0; // what the last step has removed
    do {
        const auto found = removeSome(std::min(MessagesAtOnce, atMost - removed));
        if (!found)
            return {};
        latest = *found;
        removed += latest;
    } while (latest == MessagesAtOnce);
    return removed;
}

// The newest message stays: so an id is never used again.
std::optional<qint64> SqliteKeeper::removeSome(qint64 atMost)
{
    QString condition;
    if (keep.bytes > 0) {
        const auto tooLarge = isTooLarge();
        if (!tooLarge)
            return {};
        if (*tooLarge)
            condition = QStringLiteral("true");
    }
    if (condition.isEmpty() && keep.age.count() > 0)
        condition = QStringLiteral("time < %1").arg(oldestTime());
    if (condition.isEmpty())
        return 0;
    auto query = file.prepared(
            QStringLiteral("delete from messages where id <= (select max(id) from (select id, time "
                           "from messages order by id limit %1) where %2) and id < (select max(id) "
                           "from messages)")
                    .arg(atMost)
                    .arg(condition));
    if (!query || !file.exec(*query))
        return {};
    return query->numRowsAffected();
}

std::optional<qint64> SqliteKeeper::removeConnections()
{
    qint64 before = keep.age.count() > 0 ? oldestTime() : 0;
    if (keep.bytes > 0) {
        const auto oldest =
                file.number(QStringLiteral("select time from messages order by id limit 1"));
        if (!oldest)
            return {};
        before = std::max(before, *oldest);
    }
    const QString next =
            QStringLiteral("select id from connections where id > %1 order by id limit %2")
                    .arg(seenConnections)
                    .arg(ConnectionsAtOnce);
    const auto last = file.number(QStringLiteral("select max(id) from (%1)").arg(next));
    auto query = file.prepared(
            QStringLiteral("delete from connections where id in (%1) and ended < %2 and not exists "
                           "(select 1 from messages where messages.epoch = connections.epoch and "
                           "messages.connection = connections.connection)")
                    .arg(next)
                    .arg(before));
    if (!last || !query || !file.exec(*query))
        return {};
    seenConnections = *last; // behind the last one it is 0, and they are looked at again
    return query->numRowsAffected();
}

std::optional<qint64> SqliteKeeper::giveBack()
{
    const auto free = file.number(QStringLiteral("pragma freelist_count"));
    if (!free)
        return {};
    const qint64 pages = std::min(*free - UsualFreePages, PagesAtOnce);
    if (pages <= 0)
        return 0;
    // The file itself becomes smaller when all of FILE-wal is in it.
    const bool isDone = file.exec(QStringLiteral("begin immediate")) && freePages(pages)
            && file.exec(QStringLiteral("commit"))
            && file.exec(QStringLiteral("pragma wal_checkpoint"));
    return isDone ? std::optional(pages) : std::nullopt;
}

// One by one: each is a row of the pragma's, and Qt's driver sees only the first.
bool SqliteKeeper::freePages(qint64 pages)
{
    auto query = file.prepared(QStringLiteral("pragma incremental_vacuum(1)"));
    bool isDone = query.has_value();
    for (qint64 page = 0; isDone && page < pages; ++page)
        isDone = file.exec(*query);
    return isDone;
}

} // namespace host
