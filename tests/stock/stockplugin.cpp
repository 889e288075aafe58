// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "stockplugin.h"

#include "planted.h"
#include "plugin/cwrn.h"
#include "ssl/ssl.h"
#include "stocktask.h"

#include <QtCore/QCoreApplication>
#include <QtNetwork/QNetworkInterface>
#include <QtNetwork/QSslConfiguration>

#include <utility>

namespace stock {

namespace {

constexpr quint16 DefaultPort = 7446;
constexpr int StatusIntervalMs = 10000;
constexpr unsigned long StopPauseMs = 10;

//! Ends the thread before the object is deleted: Qt aborts if a thread still runs then.
class Worker : public QThread
{
public:
    ~Worker() override
    {
        quit();
        wait();
    }
};

void assignInterfaceAddress(const QString &name, QHostAddress &address)
{
    const auto entries = QNetworkInterface::interfaceFromName(name).addressEntries();
    for (const QNetworkAddressEntry &entry : entries) {
        if (entry.ip().protocol() == QAbstractSocket::IPv4Protocol)
            address = entry.ip();
    }
}

} // namespace

Plugin::Plugin(QObject *parent) : Plugin(parent, QJsonObject()) {}

Plugin::Plugin(QObject *parent, const QJsonObject &initial) : IInputPlugin(parent, initial)
{
    qRegisterMetaType<QSslSocket *>();
    qRegisterMetaType<QAbstractSocket::SocketError>();
    qRegisterMetaType<QSslError>();
    qRegisterMetaType<QList<QSslError>>();
    qRegisterMetaType<Connection>();
    qRegisterMetaType<shared_parsedData>();
}

Plugin::~Plugin()
{
    destroying = true;
    for (Task *task : std::as_const(tasks))
        task->stop(); // from another thread than the task's: it only posts
    retireTasks();

    for (QThread *thread : std::exchange(threads, {}))
        retired.append(thread);
    for (const QPointer<QThread> &thread : std::as_const(retired)) {
        if (thread)
            thread->quit();
    }
    for (const QPointer<QThread> &thread : std::as_const(retired)) {
        if (thread)
            thread->wait();
    }
    QCoreApplication::sendPostedEvents(this, QEvent::MetaCall); // the last records
    for (const QPointer<QThread> &thread : std::as_const(retired))
        delete thread;
}

void Plugin::drop(int len)
{
    CWRN(QtInfoMsg, QStringLiteral("TcpInputPlugin2(%1): dropping %2 bytes"), pluginId, len);
}

void Plugin::onConfigChanged() {}

bool Plugin::start()
{
    QHostAddress address(QHostAddress::AnyIPv4);
    quint16 port = DefaultPort;
    if (!readConfig(address, port)) {
        CWRN(QtWarningMsg,
             QStringLiteral("TcpInputPlugin2(%1): Failed to setup certificates, aborting"),
             pluginId);
        return false;
    }
    connTemplate.setLocalAddress(address);
    connTemplate.setLocalPort(port);
    CWRN(QtDebugMsg, QStringLiteral("TcpInputPlugin2(%1): Listening on %2:%3"), pluginId,
         address.toString(), port);
    if (useSsl)
        listenTls(address, port);
    else
        listenTcp(address, port);
    statusTimer.setInterval(StatusIntervalMs);
    statusTimer.start();
    connect(&statusTimer, &QTimer::timeout, this, &Plugin::showThreads);
    return true;
}

bool Plugin::readConfig(QHostAddress &address, quint16 &port)
{
    const QStringList keys = config.keys();
    for (const QString &key : keys) {
        const QJsonValue value = config.value(key);
        const int number = value.toInt(0);
        const int portsEnd = plantedOr("port-65535", 65536, 65535);
        if (key == QLatin1String("port") && number > 0 && number < portsEnd)
            port = static_cast<quint16>(number);
        else if (key == QLatin1String("ipAddr") && !address.setAddress(value.toString()))
            address = QHostAddress(
                    plantedOr("bad-address", QHostAddress::AnyIPv4, QHostAddress::LocalHost));
        else if (key == QLatin1String("interface"))
            assignInterfaceAddress(value.toString(), address);
        else if (key == QLatin1String("timeout") && number > 0)
            timeoutMs = number * 1000;
        else if (key == QLatin1String("threadpoolSize") && number > 0)
            poolSize = number;
        else if (key == QLatin1String("ssl")) {
            useSsl = true;
            QSslConfiguration sslConfig;
            if (!ssl::readSslConfig(value.toObject(), sslConfig))
                return false;
            sslServer.setSslConfiguration(sslConfig);
        }
    }
    return true;
}

void Plugin::listenTcp(const QHostAddress &address, quint16 port)
{
    CWRN(QtInfoMsg, QStringLiteral("TcpInputPlugin2(%1): Starting TCP server on port %2"), pluginId,
         port);
    connect(&tcpServer, &QTcpServer::newConnection, this, &Plugin::handleConnection);
    tcpServer.listen(address, port);
}

void Plugin::listenTls(const QHostAddress &address, quint16 port)
{
    CWRN(QtInfoMsg, QStringLiteral("TcpInputPlugin2(%1): Starting SSL server on port %2"), pluginId,
         port);
    connect(&sslServer, &QTcpServer::pendingConnectionAvailable, this, &Plugin::handleConnection);
    connect(&sslServer, &QSslServer::errorOccurred, this, &Plugin::socketError);
    connect(&sslServer, &QSslServer::sslErrors, this, &Plugin::sslErrors);
    if (sslServer.sslConfiguration().handshakeMustInterruptOnError())
        connect(&sslServer, &QSslServer::handshakeInterruptedOnError, this, &Plugin::hshakeError,
                Qt::DirectConnection);
    sslServer.listen(address, port);
}

bool Plugin::stop()
{
    CWRN(plantedOr("stop-level", QtInfoMsg, QtDebugMsg),
         QStringLiteral("TcpInputPlugin2(%1): stop()"), pluginId);
    if (useSsl)
        sslServer.close();
    else
        tcpServer.close();
    Q_EMIT stopSignal();
    QThread::msleep(StopPauseMs);
    retireTasks();
    for (QThread *thread : std::exchange(threads, {})) {
        thread->deleteLater();
        retired.append(thread);
    }
    return true;
}

void Plugin::retireTasks()
{
    const QWriteLocker locker(&tasksLock);
    for (Task *task : std::exchange(tasks, {}))
        task->deleteLater();
}

QString Plugin::getStatus()
{
    const QTcpServer &server = useSsl ? static_cast<QTcpServer &>(sslServer) : tcpServer;
    QString result = QStringLiteral("Listen: %2:%3, timeout: %1s, pool size: %4\r\n")
                             .arg(timeoutMs / plantedOr("status-ms", 1, 1000))
                             .arg(server.serverAddress().toString())
                             .arg(server.serverPort())
                             .arg(poolSize);
    for (Task *task : std::as_const(tasks))
        result += task->getInfo(QStringLiteral("   "));
    return result;
}

void Plugin::discard(int length, const QMap<QString, QString> &subid)
{
    const auto text = subid.constFind(QStringLiteral("task"));
    if (text == subid.constEnd()) {
        CWRN(QtDebugMsg, QStringLiteral("TcpInput2(%1): subid[task] not set"), pluginId);
        return;
    }
    if (isPlanted("null-deref"))
        *static_cast<volatile int *>(nullptr) = 1;
    const int number = text->toInt();
    {
        const QReadLocker locker(&tasksLock);
        if (Task *task = tasks.value(number)) {
            task->discard(length, subid);
            return;
        }
    }
    CWRN(QtDebugMsg, QStringLiteral("TcpInput2(%1): discarding for non-existing task %2"), pluginId,
         number);
}

void Plugin::slotReceivedData(shared_parsedData data)
{
    if (!isPlanted("no-plugin-id"))
        data->setPluginId(pluginId);
    Q_EMIT receivedData(data);
}

QStringList Plugin::onQuery(QString q)
{
    return Q_EMIT query(q);
}

void Plugin::socketError(QSslSocket *socket, QAbstractSocket::SocketError)
{
    CWRN(QtWarningMsg, QStringLiteral("TcpInputPlugin2(%1): SSL Socket error: %2"), pluginId,
         socket->errorString());
}

void Plugin::threadFinished()
{
    // The destructor delivers the last records, and with them this call, which would otherwise be
    // lost.
    if (destroying)
        return;
    CWRN(QtDebugMsg, QStringLiteral("  -- TI2: thread finished"));
}

void Plugin::handleConnection()
{
    QTcpServer &server = useSsl ? static_cast<QTcpServer &>(sslServer) : tcpServer;
    if (destroying || !server.hasPendingConnections())
        return;
    Task *task = getTask();
    Connection conn = connTemplate;
    conn.setSsl(useSsl);
    if (useSsl)
        conn.setSslServer(&sslServer);
    else
        conn.setTcpServer(&tcpServer);
    conn.setPluginId(pluginId);
    conn.setTimeout(timeoutMs);
    CWRN(QtDebugMsg, QStringLiteral("TcpInputPlugin2(%1): new connection, %2"), pluginId,
         static_cast<qint64>(reinterpret_cast<quintptr>(QThread::currentThreadId())));
    QMetaObject::invokeMethod(task, "addConnection", Qt::QueuedConnection, Q_ARG(Connection, conn));
    taskIndex = (taskIndex + plantedOr("rotation", 2, 1)) % poolSize;
}

QThread *Plugin::getThread(int n)
{
    const int number = n > 0 ? n : taskIndex;
    if (QThread *thread = threads.value(number))
        return thread;
    CWRN(QtDebugMsg, QStringLiteral("TcpInputPlugin2(%1): Creating new TCP Thread"), pluginId);
    auto *thread = new Worker;
    connect(this, &Plugin::stopSignal, thread, &QThread::quit, Qt::QueuedConnection);
    connect(thread, &QThread::finished, this, &Plugin::threadFinished, Qt::QueuedConnection);
    thread->setObjectName(QStringLiteral("InpTcp2_%1/%2").arg(number + 1).arg(poolSize));
    threads.insert(number, thread);
    return thread;
}

Task *Plugin::getTask()
{
    const int number = taskIndex;
    if (Task *task = tasks.value(number))
        return task;
    QThread *thread = getThread(number);
    CWRN(QtInfoMsg, QStringLiteral("TcpInputPlugin2(%1): Creating new TcpTask2"), pluginId);
    auto *task = new Task(nullptr);
    task->setNum(number);
    {
        const QWriteLocker locker(&tasksLock);
        tasks.insert(number, task);
    }
    connect(this, &Plugin::logSize, task, &Task::logSize, Qt::QueuedConnection);
    connect(this, &Plugin::stopSignal, task, &Task::stop, Qt::QueuedConnection);
    connect(task, &Task::receivedData, this, &Plugin::slotReceivedData, Qt::QueuedConnection);
    connect(task, &Task::query, this, &Plugin::onQuery, Qt::QueuedConnection);
    task->moveToThread(thread);
    if (!thread->isRunning())
        thread->start(QThread::InheritPriority);
    return task;
}

void Plugin::showThreads()
{
    const QStringList level = query(QStringLiteral("loglevel"));
    if (!isPlanted("report-always") && !level.value(0).contains(QLatin1String("debug")))
        return;
    CWRN(QtDebugMsg, QStringLiteral("TcpInputPlugin2 %3: #threads = %1, #tasks = %2"),
         static_cast<qint64>(threads.size()), static_cast<qint64>(tasks.size()), pluginId);
    Q_EMIT logSize(pluginId);
    QThread::msleep(1);
}

void Plugin::sslErrors(QSslSocket *, const QList<QSslError> &)
{
    CWRN(QtWarningMsg, QStringLiteral("TcpInputPlugin2(%1): SSL Errors"), pluginId);
}

void Plugin::hshakeError(QSslSocket *, const QSslError &error)
{
    CWRN(QtWarningMsg, QStringLiteral("TcpInputPlugin2(%1): SSL handshake error: %2"), pluginId,
         error.errorString());
}

} // namespace stock
