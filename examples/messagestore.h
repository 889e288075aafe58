// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include <plugin/kit/inputmessage.h>

#include <QtCore/QHash>
#include <QtCore/QObject>
#include <QtCore/QTimer>
#include <QtSql/QSqlDatabase>
#include <QtSql/QSqlQuery>

#include <functional>
#include <memory>
#include <utility>

/*!
    Messages in a database. What comes close together is one transaction.

    Thread: its own, in which open() is called first.
    Owner:  the caller.
*/
class MessageStore : public QObject
{
public:
    using Acknowledge = std::function<void(quint64 connection, quint64 end)>;

    // delayMs: each commit waits so long, to try out a slow database.
    MessageStore(QString fileName, int delayMs);
    ~MessageStore() override;

    // function: called in this object's thread when a connection's messages up to there are in the
    // database. Call before the first message.
    void setAcknowledge(Acknowledge function) { acknowledge = std::move(function); }

    bool open(); // false, with a warning, if the database cannot be used
    void add(const inputkit::InputMessage &message);
    void add(const inputkit::InputEnd &end);
    void commit();
    void close(); // commits

private:
    void beginIfNeeded();
    void check(bool isDone, const QSqlQuery &query);

    const QString file;
    const int delay;
    Acknowledge acknowledge;
    QSqlDatabase database;
    std::unique_ptr<QSqlQuery> addMessage;
    std::unique_ptr<QSqlQuery> addEnd;
    QHash<quint64, quint64> uncommitted; // the end of its last message, by connection
    QTimer commitTimer;
    bool inTransaction = false;
};
