// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include "plugin/connection.h"
#include "plugin/countersevent.h"
#include "plugin/iinputplugin.h"
#include "plugin/sharedport.h"
#include "tcpinput/accept/acceptlog.h"
#include "tcpinput/accept/descriptor.h"
#include "tcpinput/accept/servers.h"
#include "tcpinput/accept/untakenconnections.h"
#include "tcpinput/configuration/configuration.h"
#include "tcpinput/limits/commoncounts.h"
#include "tcpinput/workerpool.h"

#include <QtCore/QTimer>
#include <QtNetwork/QSslError>
#include <QtNetwork/QSslSocket>

#include <chrono>

/*!
    Listens for devices over TCP or TLS, deals their connections in strict rotation over worker
    threads, and relays records to the host and the host's discards to the workers.

    The configuration is read at every start(): Configuration::keys() has the keys, with their
    values, defaults, and what a bad value does.

    Thread: its creator's; discard() from any thread.
    Owner:  the host, or the QObject parent.
    Locks:  none of its own; the pool has one, see WorkerPool.
*/
class TcpInputPlugin2 : public IInputPlugin
{
    Q_OBJECT

public:
    explicit TcpInputPlugin2(QObject *parent);
    TcpInputPlugin2(QObject *parent, const QJsonObject &initial);

    // Waits for every worker thread that was ever made and hands their last records to the host.
    ~TcpInputPlugin2() override;

    // Only logs: a stream has nothing to drop.
    void drop(int len) override;

    bool event(QEvent *event) override;

    // Worker thread n; made on first use, not started. n <= 0: the thread whose turn it is. Null if
    // descriptors have run out.
    QThread *getThread(int n) { return pool.thread(n > 0 ? n : pool.turn()); }

    // The task whose turn it is; made on first use, with its thread. Null if there is no thread.
    TcpTask2 *getTask() { return pool.task(); }

    const WorkerPool &workers() const { return pool; }
    // The timer that calls showThreads().
    const QTimer &reportTimer() const { return statusTimer; }

Q_SIGNALS:
    void newConnection(Connection conn); // never emitted
    void stopSignal();
    void logSize(QString);

public Q_SLOTS:
    // Does nothing: a changed configuration takes effect at the next start().
    void onConfigChanged() override {}

    // False if TLS is asked for and cannot be set up. True even if the port is in use: getStatus()
    // then shows port 0.
    bool start() override;

    // Closes the server and retires all workers without waiting for them. The workers then make
    // their last offers. Returns after about 10 ms, always true.
    bool stop() override;

    QString getStatus() override;

    // Do not change or add parameter names: they are in the meta-object, which hosts can list.
    void discard(int, const QMap<QString, QString> &subid) override;

    void slotReceivedData(shared_parsedData data);
    QStringList onQuery(QString);
    void socketError(QSslSocket *socket, QAbstractSocket::SocketError);
    void threadFinished();

    // Hands one pending connection to the task whose turn it is.
    void handleConnection();

    void showThreads();
    void sslErrors(QSslSocket *, const QList<QSslError> &errors);
    void hshakeError(QSslSocket *, const QSslError &error);

private:
    void initialise();
    void fill(InputCounters &counters);
    WorkerPool makePool();
    void listenTcp(const Configuration &used);
    void listenTls(const Configuration &used);
    bool handOver();
    void leave(std::chrono::milliseconds spread);
    void lend(SharedPort &request);
    void countTogether();
    void retryUntaken();

    // The plugin's thread only, except that discard() reads the pool's tasks in any thread.
    Servers servers{this};
    Configuration configuration;
    AcceptLog acceptLog{servers, pluginId, configuration.logPeers};
    Connection connTemplate;
    QTimer statusTimer;
    WorkerPool pool{makePool()};
    UntakenConnections untaken;
    Descriptor shared; // the listening socket of another plugin, for the next start()
    CommonCounts common; // likewise, what its limits count
    bool leaving = false; // until stop(): workers that come later have their devices told, too
    bool destroying = false; // in the destructor: the host's events start nothing new
    bool draining = false; // in the destructor: ends of threads are not logged
};
