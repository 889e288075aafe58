// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include "plugin/connection.h"
#include "plugin/iinputplugin.h"
#include "stockservers.h"

#include <QtCore/QList>
#include <QtCore/QMap>
#include <QtCore/QPointer>
#include <QtCore/QReadWriteLock>
#include <QtCore/QThread>
#include <QtCore/QTimer>
#include <QtNetwork/QSslError>
#include <QtNetwork/QSslSocket>

namespace stock {

class Task;

/*!
    The plain form of the plugin: the same contract on stock Qt, for comparison. It has none of the
    library's extensions, and does not handle a lack of threads or descriptors.

    Thread: its creator's, except discard(): any.
    Owner:  the caller of create(), or the QObject parent.
    Locks:  tasksLock; not held while emitting.
*/
class Plugin : public IInputPlugin
{
    Q_OBJECT

public:
    explicit Plugin(QObject *parent);
    Plugin(QObject *parent, const QJsonObject &initial);
    ~Plugin() override;

    void drop(int len) override;
    QThread *getThread(int n);
    Task *getTask();

Q_SIGNALS:
    void newConnection(Connection conn);
    void stopSignal();
    void logSize(QString);

public Q_SLOTS:
    void onConfigChanged() override;
    bool start() override;
    bool stop() override;
    QString getStatus() override;
    void discard(int, const QMap<QString, QString> &subid) override;
    void slotReceivedData(shared_parsedData data);
    QStringList onQuery(QString);
    void socketError(QSslSocket *socket, QAbstractSocket::SocketError);
    void threadFinished();
    void handleConnection();
    void showThreads();
    void sslErrors(QSslSocket *, const QList<QSslError> &errors);
    void hshakeError(QSslSocket *, const QSslError &error);

private:
    bool readConfig(QHostAddress &address, quint16 &port);
    void listenTcp(const QHostAddress &address, quint16 port);
    void listenTls(const QHostAddress &address, quint16 port);
    void retireTasks();

    TcpServer tcpServer{this};
    SslServer sslServer{this};
    bool useSsl = false;
    bool destroying = false;
    int timeoutMs = 60000;
    Connection connTemplate;
    QTimer statusTimer;
    int poolSize = 4;
    int taskIndex = 0;
    QReadWriteLock tasksLock; // for discard() in other threads than the plugin's
    QMap<int, Task *> tasks; // written under tasksLock
    QMap<int, QThread *> threads;
    QList<QPointer<QThread>> retired; // of earlier stops
};

} // namespace stock
