// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "host/sinks/sql/sqlstores.h"

#include "host/sinks/sql/sqlstore.h"

#ifdef HOST_HAS_SQLITE
#include "host/sinks/sql/sqlitedatabase.h"
#endif
#ifdef HOST_HAS_POSTGRESQL
#include "host/sinks/sql/postgresdatabase.h"
#endif

namespace host {

#ifdef HOST_HAS_SQLITE
bool canStoreInSqlite()
{
    return true;
}

std::unique_ptr<Store> makeSqliteStore(const QString &fileName, const Keep &keep,
                                       const QString &epoch)
{
    return std::make_unique<SqlStore>(std::make_unique<SqliteDatabase>(fileName, epoch, keep));
}
#else
bool canStoreInSqlite()
{
    return false;
}

std::unique_ptr<Store> makeSqliteStore(const QString &, const Keep &, const QString &)
{
    return {};
}
#endif

#ifdef HOST_HAS_POSTGRESQL
bool canStoreInPostgres()
{
    return true;
}

std::unique_ptr<Store> makePostgresStore(const QString &address, const QString &epoch)
{
    return std::make_unique<SqlStore>(std::make_unique<PostgresDatabase>(
            PostgresAddress(address.toUtf8()), epoch.toLatin1()));
}
#else
bool canStoreInPostgres()
{
    return false;
}

std::unique_ptr<Store> makePostgresStore(const QString &, const QString &)
{
    return {};
}
#endif

} // namespace host
