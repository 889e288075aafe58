// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include "host/sinks/sql/keep.h"
#include "host/sinks/store.h"

#include <QtCore/QString>

#include <memory>

namespace host {

// Whether the program was built with what these stores need.
bool canStoreInSqlite();
bool canStoreInPostgres();

// epoch: letters and digits that no other process has. Null if the program cannot.
std::unique_ptr<Store> makeSqliteStore(const QString &fileName, const Keep &keep,
                                       const QString &epoch);
// address: see PostgresAddress.
std::unique_ptr<Store> makePostgresStore(const QString &address, const QString &epoch);

} // namespace host
