// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include "host/sinks/sql/database.h"
#include "host/sinks/sql/keep.h"
#include "host/sinks/sql/sqlitefile.h"
#include "host/sinks/sql/sqlitekeeper.h"

#include <QtCore/QTimer>
#include <QtSql/QSqlQuery>

#include <memory>

namespace host {

struct ConnectionRow;

/*!
    Messages in an SQLite file.

    Thread: see Database.
    Owner:  the SqlStore.
*/
class SqliteDatabase : public Database
{
    Q_OBJECT

public:
    // processEpoch: letters and digits that no other process has.
    SqliteDatabase(const QString &fileName, QString processEpoch, const Keep &keep);
    ~SqliteDatabase() override;

    QString name() const override { return file; }
    void open() override;
    void write(const std::vector<Batch> &batches) override;
    void close() override;

private:
    struct Statements;

    SqliteFile::Opening openFile();
    std::unique_ptr<Statements> prepare(qint64 epochId);

    bool insert(const std::vector<Batch> &batches);
    bool insertMessage(const Batch &batch, const Batch::Entry &entry);
    bool insertWaiting();
    bool insertConnection(const ConnectionRow &row);

    void tidy();
    std::optional<qint64> removeOld();
    void fail();

    const QString file;
    const QString epoch;
    const bool keepsAll;
    SqliteFile database;
    SqliteKeeper keeper;
    QTimer tidyTimer;
    std::unique_ptr<Statements> statements; // null: closed
};

} // namespace host
