// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include <QtCore/QString>
#include <QtSql/QSqlDatabase>
#include <QtSql/QSqlQuery>

#include <optional>

namespace host {

/*!
    An SQLite file with our tables; docs/INPUTHOST.md describes them.

    Every function that returns false, or nothing, leaves the reason in errorString().

    Thread: the one that calls open(), until close().
    Owner:  the caller. The destructor closes.
*/
class SqliteFile
{
public:
    enum class Opening {
        Done,
        NotNow, // it is locked or read-only, or the disk is full
        Refused, // there is no such folder, or the file is something else
    };

    explicit SqliteFile(QString fileName) : name(std::move(fileName)) {}
    ~SqliteFile() { close(); }
    Q_DISABLE_COPY_MOVE(SqliteFile)

    // Makes the file if there is none. What is not Done is closed.
    Opening open();
    // All queries of this file must be gone.
    void close();

    bool exec(const QString &statement);
    bool exec(QSqlQuery &query); // one that prepared() has made
    std::optional<QSqlQuery> prepared(const QString &statement);
    // The first value of the first row; 0 if it is null, or if there is no row.
    std::optional<qint64> number(const QString &statement);

    QString errorString() const { return error; }

private:
    Opening openTables();
    Opening refuse(const QString &reason);
    bool setUp();
    bool makeTables();
    bool note(const QSqlError &failure);

    const QString name;
    QString connection; // Qt's name for it; empty: closed
    QString error;
    int errorCode = 0; // SQLite's, without its extension
};

} // namespace host
