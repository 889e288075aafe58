// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include <QtCore/QByteArrayList>
#include <QtCore/QList>
#include <QtCore/QString>
#include <QtCore/QVariant>
#include <QtSql/QSqlDatabase>
#include <QtSql/QSqlError>
#include <QtSql/QSqlQuery>
#include <QtSql/QSqlRecord>

//! An SQLite file as another program sees it.
class SqliteReader
{
public:
    explicit SqliteReader(const QString &file)
    {
        QSqlDatabase database = QSqlDatabase::addDatabase(QStringLiteral("QSQLITE"), name);
        database.setDatabaseName(file);
        if (!database.open())
            qFatal("%s", qPrintable(database.lastError().text()));
    }
    ~SqliteReader() { QSqlDatabase::removeDatabase(name); }
    Q_DISABLE_COPY_MOVE(SqliteReader)

    // Each row's columns.
    QList<QVariantList> rows(const QString &statement)
    {
        QSqlQuery query(QSqlDatabase::database(name));
        if (!query.exec(statement))
            qFatal("%s: %s", qPrintable(statement), qPrintable(query.lastError().text()));
        QList<QVariantList> rows;
        while (query.next()) {
            QVariantList row;
            for (int column = 0; column < query.record().count(); ++column)
                row += query.value(column);
            rows += row;
        }
        return rows;
    }
    qint64 number(const char *statement)
    {
        const auto found = rows(QString::fromLatin1(statement));
        return found.isEmpty() ? -1 : found.first().value(0).toLongLong();
    }
    void exec(const char *statement) { rows(QString::fromLatin1(statement)); }
    QByteArrayList messages(const char *condition = "true")
    {
        QByteArrayList messages;
        const auto found = rows(QStringLiteral("select bytes from messages where %1 order by id")
                                        .arg(QString::fromLatin1(condition)));
        for (const QVariantList &row : found)
            messages += row.first().toByteArray();
        return messages;
    }

private:
    const QString name = QStringLiteral("reader %1").arg(quintptr(this));
};
