// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "messagestore.h"

#include <QtCore/QThread>
#include <QtCore/QVariant>
#include <QtSql/QSqlError>

#include <utility>

namespace {

constexpr auto Connection = "messages";

constexpr const char *Tables[] = {
        "create table if not exists messages (connection integer, position integer, finish "
        "integer, "
        "peer text, time text, partial integer, bytes blob)",
        "create table if not exists ends (connection integer, position integer, reason text)",
};

} // namespace

MessageStore::MessageStore(QString fileName, int delayMs)
    : file(std::move(fileName)),
      delay(delayMs),
      commitTimer(this) // a child: it moves along to the store's thread
{
    // When all that waits in the event loop has been added.
    commitTimer.setSingleShot(true);
    connect(&commitTimer, &QTimer::timeout, this, &MessageStore::commit);
}

MessageStore::~MessageStore() = default;

bool MessageStore::open()
{
    database = QSqlDatabase::addDatabase("QSQLITE", Connection);
    database.setDatabaseName(file);
    if (!database.open()) {
        qWarning("%s: %s", qPrintable(file), qPrintable(database.lastError().text()));
        return false;
    }
    for (const char *table : Tables) {
        QSqlQuery query(database);
        if (!query.exec(table)) {
            qWarning("%s: %s", qPrintable(file), qPrintable(query.lastError().text()));
            return false;
        }
    }
    addMessage = std::make_unique<QSqlQuery>(database);
    addMessage->prepare("insert into messages values (?, ?, ?, ?, ?, ?, ?)");
    addEnd = std::make_unique<QSqlQuery>(database);
    addEnd->prepare("insert into ends values (?, ?, ?)");
    return true;
}

void MessageStore::beginIfNeeded()
{
    if (!std::exchange(inTransaction, true))
        database.transaction();
    if (!commitTimer.isActive())
        commitTimer.start(0);
}

// What cannot be stored must not be acknowledged, and nothing else can be done with it here.
void MessageStore::check(bool isDone, const QSqlQuery &query)
{
    if (!isDone)
        qFatal("%s: %s", qPrintable(file), qPrintable(query.lastError().text()));
}

void MessageStore::add(const inputkit::InputMessage &message)
{
    beginIfNeeded();
    addMessage->bindValue(0, message.origin.connection);
    addMessage->bindValue(1, message.position);
    addMessage->bindValue(2, message.end);
    addMessage->bindValue(3, message.origin.peer);
    addMessage->bindValue(4, message.origin.time.toUTC().toString(Qt::ISODateWithMs));
    addMessage->bindValue(5, message.partial);
    addMessage->bindValue(6, message.bytes.toByteArray());
    check(addMessage->exec(), *addMessage);
    uncommitted[message.origin.connection] = message.end;
}

void MessageStore::add(const inputkit::InputEnd &end)
{
    beginIfNeeded();
    addEnd->bindValue(0, end.origin.connection);
    addEnd->bindValue(1, end.position);
    addEnd->bindValue(2, end.reason);
    check(addEnd->exec(), *addEnd);
}

void MessageStore::commit()
{
    commitTimer.stop();
    if (!std::exchange(inTransaction, false))
        return;
    if (delay > 0)
        QThread::msleep(static_cast<unsigned long>(delay));
    if (!database.commit())
        qFatal("%s: %s", qPrintable(file), qPrintable(database.lastError().text()));
    const auto committed = std::exchange(uncommitted, {});
    for (auto each = committed.cbegin(); each != committed.cend(); ++each)
        acknowledge(each.key(), each.value());
}

void MessageStore::close()
{
    commit();
    addMessage.reset();
    addEnd.reset();
    database.close();
    database = {};
    QSqlDatabase::removeDatabase(Connection);
}
