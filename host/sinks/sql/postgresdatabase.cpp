// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "host/sinks/sql/postgresdatabase.h"

#include "host/sinks/sql/connectionrows.h"
#include "host/sinks/sql/postgresarray.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <iterator>
#include <utility>

#include <libpq-fe.h>

namespace host {
namespace {

using namespace std::chrono_literals;

constexpr auto DeadAfter = 30s;
constexpr int SchemaVersion = 1;

// What comes before "dbname" is a default, what comes behind it holds.
constexpr std::array Keywords{
        "fallback_application_name", "tcp_user_timeout", "keepalives_idle", "keepalives_interval",
        "keepalives_count",          "dbname",           "client_encoding"};

// In one transaction, which is undone if one of them fails. %1: our schema's version; %2: the
// epoch. The server gives a statement up a little before we give the server up. No statement makes
// what is there already: a user who may only write into the tables could not execute it. The
// setting of synchronous_commit is made the session's own: it holds even if the server's
// configuration changes.
constexpr auto SetUpStatements = R"(
set statement_timeout = '25s';
select set_config('synchronous_commit',
                  case current_setting('synchronous_commit')
                      when 'off' then 'on' else current_setting('synchronous_commit') end, false);
do $$ begin
    perform pg_advisory_xact_lock(1953329511);
    if to_regclass('inputhost.schema') is null then
        create schema if not exists inputhost;
        create table inputhost.schema (version integer not null);
        insert into inputhost.schema values (%1);
        create table inputhost.epochs (
            id integer generated always as identity primary key,
            epoch text not null unique,
            began timestamptz not null);
        create table inputhost.connections (
            id bigint generated always as identity primary key,
            epoch integer not null,
            connection bigint not null,
            plugin text not null,
            source text not null,
            peer text not null,
            port integer not null,
            client text not null,
            task text not null,
            began timestamptz,
            ended timestamptz,
            reason text,
            length bigint,
            unique (epoch, connection));
        create table inputhost.messages (
            id bigint generated always as identity primary key,
            epoch integer not null,
            connection bigint not null,
            position bigint not null,
            finish bigint not null,
            time timestamptz not null,
            partial boolean not null,
            bytes bytea not null,
            unique (epoch, connection, position));
    end if;
end $$;
select version from inputhost.schema;
insert into inputhost.epochs (epoch, began) select '%2', now()
    where not exists (select from inputhost.epochs where epoch = '%2');
select id as epoch_id from inputhost.epochs where epoch = '%2';
)";

// %1: the epoch's number. Rows keep their order.
constexpr auto WriteStatement = R"(
with stored as (
    insert into inputhost.messages (epoch, connection, position, finish, time, partial, bytes)
    select %1, * from unnest($1::bigint[], $2::bigint[], $3::bigint[], $4::timestamptz[],
                             $5::boolean[], $6::bytea[])
    on conflict do nothing)
insert into inputhost.connections as old (epoch, connection, plugin, source, peer, port, client, task,
                                          began, ended, reason, length)
select %1, * from unnest($7::bigint[], $8::text[], $9::text[], $10::text[], $11::bigint[], $12::text[],
                         $13::text[], $14::timestamptz[], $15::timestamptz[], $16::text[], $17::bigint[])
on conflict (epoch, connection) do update set
    began = coalesce(old.began, excluded.began),
    ended = coalesce(old.ended, excluded.ended),
    reason = coalesce(old.reason, excluded.reason),
    length = coalesce(old.length, excluded.length)
)";

// PostgreSQL's texts have no NUL.
void appendText(PostgresArray &array, QString text)
{
    array.append(text.replace(QChar(u'\0'), QChar(QChar::ReplacementCharacter)).toUtf8());
}

void appendNumber(PostgresArray &array, quint64 number)
{
    array.appendInteger(static_cast<qint64>(number));
}

struct MessageArrays
{
    PostgresArray connection{PostgresArray::Integer};
    PostgresArray position{PostgresArray::Integer};
    PostgresArray finish{PostgresArray::Integer};
    PostgresArray time{PostgresArray::Time};
    PostgresArray partial{PostgresArray::Bool};
    PostgresArray bytes{PostgresArray::Bytes};

    void add(const Batch &batch, const Batch::Entry &entry)
    {
        const Origin &origin = batch.originOf(entry);
        appendNumber(connection, origin.connection);
        appendNumber(position, entry.position);
        appendNumber(finish, entry.end);
        time.appendTime(origin.time.toMSecsSinceEpoch());
        partial.appendBool(entry.partial);
        bytes.append(batch.bytesOf(entry));
    }
};

struct ConnectionArrays
{
    PostgresArray connection{PostgresArray::Integer};
    PostgresArray plugin{PostgresArray::Text};
    PostgresArray source{PostgresArray::Text};
    PostgresArray peer{PostgresArray::Text};
    PostgresArray port{PostgresArray::Integer};
    PostgresArray client{PostgresArray::Text};
    PostgresArray task{PostgresArray::Text};
    PostgresArray began{PostgresArray::Time};
    PostgresArray ended{PostgresArray::Time};
    PostgresArray reason{PostgresArray::Text};
    PostgresArray length{PostgresArray::Integer};

    void add(const ConnectionRow &row)
    {
        const Origin &origin = *row.origin;
        appendNumber(connection, origin.connection);
        appendText(plugin, origin.plugin);
        appendText(source, origin.source);
        appendText(peer, origin.peer);
        appendNumber(port, origin.port);
        appendText(client, origin.client);
        appendText(task, origin.task);
        began.appendTime(row.began);
        ended.appendTime(row.ended);
        if (row.ended) {
            appendText(reason, QString::fromUtf8(row.reason));
            appendNumber(length, row.length);
        } else {
            reason.appendNull();
            length.appendNull();
        }
    }
};

bool send(PGconn *server, const QByteArray &statement, MessageArrays &messages,
          ConnectionArrays &connections)
{
    PostgresArray *const arrays[] = {
            &messages.connection, &messages.position, &messages.finish,        &messages.time,
            &messages.partial,    &messages.bytes,    &connections.connection, &connections.plugin,
            &connections.source,  &connections.peer,  &connections.port,       &connections.client,
            &connections.task,    &connections.began, &connections.ended,      &connections.reason,
            &connections.length};
    constexpr std::size_t Count = std::size(arrays);
    std::array<const char *, Count> values{};
    std::array<int, Count> lengths{};
    std::array<int, Count> formats{};
    for (std::size_t n = 0; n < Count; ++n) {
        values[n] = arrays[n]->bytes().constData();
        lengths[n] = static_cast<int>(arrays[n]->bytes().size());
        formats[n] = 1; // binary
    }
    return PQsendQueryParams(server, statement.constData(), int(Count), nullptr, values.data(),
                             lengths.data(), formats.data(), 0)
            == 1;
}

} // namespace

// It may be the one whose signal is being handled.
void PostgresDatabase::LateDeleter::operator()(QSocketNotifier *notifier) const
{
    notifier->setEnabled(false);
    notifier->deleteLater();
}

void PostgresDatabase::ConnectionDeleter::operator()(pg_conn *connection) const
{
    PQfinish(connection);
}

PostgresDatabase::PostgresDatabase(PostgresAddress serverAddress, QByteArray processEpoch)
    : address(std::move(serverAddress)),
      epoch(std::move(processEpoch)),
      deadTimer(this)
{
    deadTimer.setSingleShot(true);
    connect(&deadTimer, &QTimer::timeout, this, [this] {
        failWith(QStringLiteral("the server has not answered for %1 s").arg(DeadAfter.count()));
    });
}

PostgresDatabase::~PostgresDatabase() = default;

void PostgresDatabase::open()
{
    if (!address.errorString().isEmpty()) {
        Q_EMIT refused(address.errorString());
        return;
    }
    const std::array values{"inputhost", "10000", "10", "5", "3", address.text().constData(),
                            "UTF8"};
    std::array<const char *, Keywords.size() + 1> keywords{};
    std::array<const char *, values.size() + 1> ended{};
    std::copy(Keywords.begin(), Keywords.end(), keywords.begin());
    std::copy(values.begin(), values.end(), ended.begin());
    server.reset(PQconnectStartParams(keywords.data(), ended.data(), 1));
    if (PQstatus(server.get()) == CONNECTION_BAD) {
        failNow();
        return;
    }
    PQsetNoticeProcessor(
            server.get(), [](void *, const char *) {}, nullptr);
    step = Step::Connecting;
    deadTimer.start(DeadAfter);
    watch();
    writable->setEnabled(true);
}

// While it connects, libpq uses one socket after the other.
void PostgresDatabase::watch()
{
    const int socket = PQsocket(server.get());
    const auto notifierFor = [this, socket](QSocketNotifier::Type type) {
        Notifier notifier(new QSocketNotifier(socket, type));
        notifier->setEnabled(false);
        connect(notifier.get(), &QSocketNotifier::activated, this, &PostgresDatabase::goOn);
        return notifier;
    };
    readable.reset();
    writable.reset(); // the next ones may have the same socket
    readable = notifierFor(QSocketNotifier::Read);
    writable = notifierFor(QSocketNotifier::Write);
}

void PostgresDatabase::goOn()
{
    if (step != Step::Idle)
        deadTimer.start(DeadAfter);
    if (step == Step::Connecting)
        pollConnecting();
    else if (step != Step::Closed)
        exchange();
}

void PostgresDatabase::pollConnecting()
{
    const PostgresPollingStatusType status = PQconnectPoll(server.get());
    if (status == PGRES_POLLING_FAILED) {
        failNow();
        return;
    }
    watch();
    if (status == PGRES_POLLING_OK)
        setUp();
    else
        (status == PGRES_POLLING_READING ? readable : writable)->setEnabled(true);
}

void PostgresDatabase::setUp()
{
    const QString statements =
            QString::fromLatin1(SetUpStatements).arg(SchemaVersion).arg(QString::fromLatin1(epoch));
    step = Step::SettingUp;
    epochId.clear();
    isNewer = false;
    if (PQsetnonblocking(server.get(), 1) != 0
        || PQsendQuery(server.get(), statements.toLatin1().constData()) != 1) {
        failNow();
        return;
    }
    readable->setEnabled(true);
    exchange();
}

void PostgresDatabase::write(const std::vector<Batch> &batches)
{
    MessageArrays messages;
    ConnectionArrays connections;
    for (const Batch &batch : batches) {
        for (const Batch::Entry &entry : batch.entries()) {
            if (entry.kind == Batch::Kind::Message)
                messages.add(batch, entry);
        }
    }
    for (const ConnectionRow &row : connectionRows(batches))
        connections.add(row);
    step = Step::Writing;
    if (!send(server.get(), QByteArray(WriteStatement).replace("%1", epochId), messages,
              connections)) {
        failNow();
        return;
    }
    deadTimer.start(DeadAfter);
    exchange();
}

// Also when nothing is asked of the server: then it has gone.
void PostgresDatabase::exchange()
{
    const bool isRead = PQconsumeInput(server.get()) == 1;
    const int unsent = isRead ? PQflush(server.get()) : -1;
    if (unsent < 0) {
        failNow();
        return;
    }
    writable->setEnabled(unsent > 0);
    while (isAsking() && PQisBusy(server.get()) == 0) {
        const std::unique_ptr<PGresult, decltype(&PQclear)> result(PQgetResult(server.get()),
                                                                   &PQclear);
        if (result)
            take(result.get());
        else
            noteDone();
    }
}

void PostgresDatabase::take(const PGresult *result)
{
    const ExecStatusType status = PQresultStatus(result);
    if (status == PGRES_TUPLES_OK) {
        noteSettings(result);
    } else if (status != PGRES_COMMAND_OK && complaint.isEmpty()) {
        const char *const message = PQresultErrorField(result, PG_DIAG_MESSAGE_PRIMARY);
        complaint = address.redacted(message ? message : PQresultErrorMessage(result));
    }
}

void PostgresDatabase::noteSettings(const PGresult *result)
{
    if (PQntuples(result) != 1)
        return;
    const QByteArray name = PQfname(result, 0);
    const QByteArray value = PQgetvalue(result, 0, 0);
    if (name == "epoch_id")
        epochId = value;
    else if (name == "version")
        isNewer = value.toInt() > SchemaVersion;
}

void PostgresDatabase::noteDone()
{
    Q_ASSERT(isAsking());
    deadTimer.stop();
    const bool wasSettingUp = std::exchange(step, Step::Idle) == Step::SettingUp;
    if (wasSettingUp && isNewer) {
        close();
        Q_EMIT refused(QStringLiteral("a newer inputhost has made its tables"));
    } else if (!complaint.isEmpty()) {
        failWith(complaint);
    } else if (!wasSettingUp) {
        Q_EMIT written();
    } else if (epochId.isEmpty()) {
        failWith(QStringLiteral("the table inputhost.epochs does not take a row"));
    } else {
        Q_EMIT opened();
    }
}

void PostgresDatabase::close()
{
    step = Step::Closed;
    deadTimer.stop();
    complaint.clear();
    readable.reset();
    writable.reset();
    server.reset();
}

void PostgresDatabase::failNow()
{
    failWith(address.redacted(PQerrorMessage(server.get())));
}

// A copy: close() clears the complaint.
void PostgresDatabase::failWith(QString reason)
{
    close();
    Q_EMIT failed(reason);
}

} // namespace host
