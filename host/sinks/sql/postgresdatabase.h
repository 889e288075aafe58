// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include "host/sinks/sql/database.h"
#include "host/sinks/sql/postgresaddress.h"

#include <QtCore/QByteArray>
#include <QtCore/QSocketNotifier>
#include <QtCore/QTimer>

#include <memory>

struct pg_conn;
struct pg_result;

namespace host {

/*!
    Messages in a PostgreSQL database. A transaction is one statement.

    Nothing waits for the server: what it has to say comes through the event loop. A server that
    neither takes nor says anything for 30 s is taken for dead.

    Thread: see Database.
    Owner:  the SqlStore.
*/
class PostgresDatabase : public Database
{
    Q_OBJECT

public:
    // processEpoch: letters and digits that no other process has.
    PostgresDatabase(PostgresAddress serverAddress, QByteArray processEpoch);
    ~PostgresDatabase() override;

    QString name() const override { return address.name(); }
    void open() override;
    void write(const std::vector<Batch> &batches) override;
    void close() override;

private:
    enum class Step { Closed, Connecting, SettingUp, Idle, Writing };

    struct ConnectionDeleter
    {
        void operator()(pg_conn *connection) const;
    };
    struct LateDeleter
    {
        void operator()(QSocketNotifier *notifier) const;
    };
    using Notifier = std::unique_ptr<QSocketNotifier, LateDeleter>;

    // Whether the server owes an answer.
    bool isAsking() const { return step == Step::SettingUp || step == Step::Writing; }

    void watch();
    void goOn();
    void pollConnecting();
    void setUp();
    void exchange();
    void take(const pg_result *result);
    void noteSettings(const pg_result *result);
    void noteDone();
    void failNow();
    void failWith(QString reason);

    const PostgresAddress address;
    const QByteArray epoch;
    Step step = Step::Closed;
    std::unique_ptr<pg_conn, ConnectionDeleter> server;
    Notifier readable;
    Notifier writable;
    QTimer deadTimer;
    QByteArray epochId; // its number in the database
    QString complaint; // of the statement that is being done; empty: none so far
    bool isNewer = false; // the database's schema
};

} // namespace host
