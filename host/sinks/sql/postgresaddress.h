// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include <QtCore/QByteArray>
#include <QtCore/QList>
#include <QtCore/QString>

namespace host {

//! Which PostgreSQL server and database are meant, as libpq understands it. A value.
class PostgresAddress
{
public:
    // text: what libpq calls a connection string, or a database's name, or nothing. Of a URI the
    // scheme may be missing: "//user@server/database".
    explicit PostgresAddress(const QByteArray &text);

    // Empty, or why it cannot be meant. Has no password.
    QString errorString() const { return error; }
    // For libpq's parameter "dbname".
    QByteArray text() const { return connectionString; }
    // For log lines.
    QString name() const;
    // What libpq says, on one line, without the passwords that the text has.
    QString redacted(const char *message) const;

private:
    void read();

    QByteArray connectionString;
    QByteArray host;
    QByteArray database;
    QList<QByteArray> passwords;
    QString error;
};

} // namespace host
