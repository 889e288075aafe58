// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include "plugin/connection.h"
#include "plugin/parseddata.h"

#include <QtCore/QMap>
#include <QtCore/QObject>
#include <QtCore/QReadWriteLock>
#include <QtCore/QString>
#include <QtCore/QStringList>

namespace stock {

class Client;

/*!
    The connections of one worker thread, and what is known of each by its id.

    Thread: the worker's; discard(), getInfo() and stop() from any.
    Owner:  the plugin, which retires it with deleteLater().
    Locks:  clientsLock; never held while records are emitted.
*/
class Task : public QObject
{
    Q_OBJECT

public:
    explicit Task(QObject *parent) : QObject(parent) {}
    // Call in the task's thread. Every client first makes its last offer.
    ~Task() override;

    // Before the task is moved into its thread.
    void setNum(int n) { num = n; }
    void discard(int length, const QMap<QString, QString> &subid);

    bool event(QEvent *event) override;

Q_SIGNALS:
    void receivedData(shared_parsedData data);
    QStringList query(QString q);
    void stopTimer();

public Q_SLOTS:
    void logSize(const QString &id);
    void addConnection(Connection conn);
    void disconnected(const QString &id);
    void readyRead(Connection c, const QString &id);
    void stop();
    QString getInfo(const QString &prefix = QString());

private Q_SLOTS:
    void idChanged(const QString &oid, const QString &id);

private:
    void connectClient(Client *client);
    void endClients();

    QMap<QString, Client *> clients; // written by the worker under clientsLock
    QReadWriteLock clientsLock;
    int stopsOnStack = 0; // this and the next: the task's thread only
    bool deletionPending = false;
    int num = 0; // set once
};

} // namespace stock
