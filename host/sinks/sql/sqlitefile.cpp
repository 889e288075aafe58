// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "host/sinks/sql/sqlitefile.h"

#include <QtCore/QFileInfo>
#include <QtCore/QStringList>
#include <QtCore/QUuid>
#include <QtSql/QSqlError>

#include <algorithm>
#include <array>
#include <utility>

namespace host {
namespace {

constexpr qint64 ApplicationId = 0x746d7367; // tells our files from those of other programs
constexpr qint64 SchemaVersion = 1;

// SQLite's error codes.
constexpr int CannotOpen = 14;
constexpr int NoDatabase = 26;

// Another process that reads or tidies up does not hold the file longer than that.
constexpr auto ConnectOptions = "QSQLITE_BUSY_TIMEOUT=100";

constexpr std::array Settings{
        // A commit is on the disk when it is done: a power failure loses none.
        "pragma synchronous = full",
        // In KiB. With thousands of connections, a transaction touches thousands of the index's
        // pages.
        "pragma cache_size = -32768",
};

// Only possible while the file is empty, and in this order.
constexpr std::array FileSettings{
        "pragma auto_vacuum = incremental",
        "pragma journal_mode = wal",
};

constexpr std::array Tables{
        "create table epochs (id integer primary key, epoch text not null unique,"
        " began integer not null)",
        "create table connections (id integer primary key, epoch integer not null,"
        " connection integer not null, plugin text not null, source text not null,"
        " peer text not null, port integer not null, client text not null, task text not null,"
        " began integer, ended integer, reason text, length integer, unique (epoch, connection))",
        "create table messages (id integer primary key, epoch integer not null,"
        " connection integer not null, position integer not null, finish integer not null,"
        " time integer not null, partial integer not null, bytes blob not null,"
        " unique (epoch, connection, position))",
};

} // namespace

SqliteFile::Opening SqliteFile::open()
{
    const QString driver = QStringLiteral("QSQLITE");
    if (!QSqlDatabase::isDriverAvailable(driver))
        return refuse(QStringLiteral("Qt's driver for SQLite is not installed"));
    // SQLite would open it all the same, and leave files beside it that are read-only, too.
    const QFileInfo file(name);
    if (file.exists() && !file.isWritable()) {
        error = QStringLiteral("it is read-only");
        return Opening::NotNow;
    }
    errorCode = 0;
    connection = QUuid::createUuid().toString();
    Opening opening = Opening::NotNow;
    {
        QSqlDatabase database = QSqlDatabase::addDatabase(driver, connection);
        database.setDatabaseName(name);
        database.setConnectOptions(QLatin1String(ConnectOptions));
        if (database.open())
            opening = openTables();
        else
            note(database.lastError());
    }
    if (opening == Opening::NotNow && (errorCode == CannotOpen || errorCode == NoDatabase))
        opening = Opening::Refused;
    if (opening != Opening::Done)
        close();
    return opening;
}

SqliteFile::Opening SqliteFile::openTables()
{
    const auto tables = number(QStringLiteral("select count(*) from sqlite_master"));
    const auto application = number(QStringLiteral("pragma application_id"));
    const auto version = number(QStringLiteral("pragma user_version"));
    if (!tables || !application || !version)
        return Opening::NotNow;
    const bool isNew = *tables == 0 && *application == 0 && *version == 0;
    if (!isNew && *application != ApplicationId)
        return refuse(QStringLiteral("it is a database of another program"));
    if (*version > SchemaVersion)
        return refuse(QStringLiteral("a newer inputhost has made it: its schema is %1, this "
                                     "program's is %2")
                              .arg(*version)
                              .arg(SchemaVersion));
    return setUp() && (!isNew || makeTables()) ? Opening::Done : Opening::NotNow;
}

SqliteFile::Opening SqliteFile::refuse(const QString &reason)
{
    error = reason;
    return Opening::Refused;
}

bool SqliteFile::setUp()
{
    return std::all_of(Settings.begin(), Settings.end(),
                       [this](const char *each) { return exec(QString::fromLatin1(each)); });
}

bool SqliteFile::makeTables()
{
    for (const char *setting : FileSettings) {
        if (!exec(QLatin1String(setting)))
            return false;
    }
    QStringList statements = {QStringLiteral("begin immediate")};
    for (const char *table : Tables)
        statements += QLatin1String(table);
    statements += QStringLiteral("pragma application_id = %1").arg(ApplicationId);
    statements += QStringLiteral("pragma user_version = %1").arg(SchemaVersion);
    statements += QStringLiteral("commit");
    return std::all_of(statements.cbegin(), statements.cend(),
                       [this](const QString &each) { return exec(each); });
}

void SqliteFile::close()
{
    if (!connection.isEmpty())
        QSqlDatabase::removeDatabase(std::exchange(connection, {})); // closes, and rolls back
}

bool SqliteFile::exec(const QString &statement)
{
    QSqlQuery query(QSqlDatabase::database(connection, false));
    return query.exec(statement) || note(query.lastError());
}

bool SqliteFile::exec(QSqlQuery &query)
{
    return query.exec() || note(query.lastError());
}

std::optional<QSqlQuery> SqliteFile::prepared(const QString &statement)
{
    QSqlQuery query(QSqlDatabase::database(connection, false));
    if (query.prepare(statement))
        return query;
    note(query.lastError());
    return {};
}

std::optional<qint64> SqliteFile::number(const QString &statement)
{
    QSqlQuery query(QSqlDatabase::database(connection, false));
    if (!query.exec(statement)) {
        note(query.lastError());
        return {};
    }
    return query.next() ? query.value(0).toLongLong() : 0;
}

bool SqliteFile::note(const QSqlError &failure)
{
    error = failure.databaseText();
    errorCode = failure.nativeErrorCode().toInt() & 0xff;
    return false;
}

} // namespace host
