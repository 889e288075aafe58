// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "tcpinput/tcpinputplugin2.h"

#include "plugin/cwrn.h"
#include "ssl/ssl.h"
#include "tcpinput/tcptask2.h"
#include "tcpinput/threadid.h"
#include "tcpinput/workerthread.h"

#include <QtCore/QCoreApplication>
#include <QtNetwork/QNetworkInterface>
#include <QtNetwork/QSslConfiguration>

#include <limits>
#include <utility>

namespace {

constexpr quint16 DefaultPort = 7446;
constexpr int HighestPort = 65534;
constexpr int StatusIntervalMs = 10000;
// For connections that no worker could be had for: longer each time, since each try is logged.
constexpr int FirstRetryMs = 500;
constexpr int LongestRetryMs = 1900;
constexpr unsigned long StopPauseMs = 10; // for the workers to begin their winding down
constexpr unsigned long ReportPauseMs = 1;

// The last IPv4 address of the named interface, if there is one.
void assignInterfaceAddress(const QString &name, QHostAddress &address)
{
    const auto entries = QNetworkInterface::interfaceFromName(name).addressEntries();
    for (const QNetworkAddressEntry &entry : entries) {
        if (entry.ip().protocol() == QAbstractSocket::IPv4Protocol)
            address = entry.ip();
    }
}

int toMilliseconds(int seconds)
{
    return static_cast<int>(qMin<qint64>(qint64(seconds) * 1000, std::numeric_limits<int>::max()));
}

} // namespace

TcpInputPlugin2::TcpInputPlugin2(QObject *parent)
    : IInputPlugin(parent),
      tcpServer(this),
      sslServer(this)
{
    initialise();
}

TcpInputPlugin2::TcpInputPlugin2(QObject *parent, const QJsonObject &initial)
    : IInputPlugin(parent, initial),
      tcpServer(this),
      sslServer(this)
{
    initialise();
}

void TcpInputPlugin2::initialise()
{
    qRegisterMetaType<QSslSocket *>();
    qRegisterMetaType<QAbstractSocket::SocketError>();
    qRegisterMetaType<QSslError>();
    qRegisterMetaType<QList<QSslError>>();
    qRegisterMetaType<Connection>();
    qRegisterMetaType<shared_parsedData>();

    connect(&retryTimer, &QTimer::timeout, this, &TcpInputPlugin2::retryUntaken);

    for (const AcceptGuard *guard : {&tcpServer.guard, &sslServer.guard}) {
        connect(guard, &AcceptGuard::descriptorsOut, this, [this] {
            CWRN(QtWarningMsg,
                 QStringLiteral("TcpInputPlugin2(%1): Out of file descriptors, accepting paused"),
                 pluginId);
        });
        connect(guard, &AcceptGuard::descriptorsBack, this, [this] {
            CWRN(QtInfoMsg, QStringLiteral("TcpInputPlugin2(%1): Accepting resumed"), pluginId);
        });
    }
}

TcpInputPlugin2::~TcpInputPlugin2()
{
    destroying = true;
    retryTimer.stop();
    // A call across threads: it only posts to the workers, and the events it processes are ours.
    for (TcpTask2 *task : std::as_const(tasks))
        task->stop();
    retireTasks(); // each dies in its own thread, which ends no sooner than that is done
    draining = true;

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
    // The records that the workers sent until then, while this is still an input plugin.
    QCoreApplication::sendPostedEvents(this, QEvent::MetaCall);
    for (const QPointer<QThread> &thread : std::as_const(retired))
        delete thread;
}

bool TcpInputPlugin2::event(QEvent *event)
{
    // The destructor processes the host's events: one of them may be a deletion of this object. The
    // type first: the construction of the servers already brings events.
    if (event->type() == QEvent::DeferredDelete && destroying)
        return true;
    return IInputPlugin::event(event);
}

void TcpInputPlugin2::drop(int len)
{
    CWRN(QtInfoMsg, QStringLiteral("TcpInputPlugin2(%1): dropping %2 bytes"), pluginId, len);
}

QThread *TcpInputPlugin2::getThread(int n)
{
    const int number = n > 0 ? n : taskIndex;
    if (QThread *thread = threads.value(number))
        return thread;

    CWRN(QtDebugMsg, QStringLiteral("TcpInputPlugin2(%1): Creating new TCP Thread"), pluginId);
    if (QThread *thread = threads.value(number)) // made within the line, whose handler may run the
        return thread; // event loop; as below
    QThread *thread = WorkerThread::make().release();
    if (!thread)
        return nullptr;
    connect(this, &TcpInputPlugin2::stopSignal, thread, &QThread::quit, Qt::QueuedConnection);
    connect(thread, &QThread::finished, this, &TcpInputPlugin2::threadFinished,
            Qt::QueuedConnection);
    thread->setObjectName(QStringLiteral("InpTcp2_%1/%2").arg(number + 1).arg(poolSize));
    threads.insert(number, thread);
    return thread;
}

TcpTask2 *TcpInputPlugin2::getTask()
{
    const int number = taskIndex;
    if (TcpTask2 *task = tasks.value(number))
        return task;

    QThread *thread = getThread(number);
    if (!thread || !startThread(number)) {
        CWRN(QtWarningMsg,
             QStringLiteral("TcpInputPlugin2(%1): Not creating task, no thread found"), pluginId);
        return nullptr;
    }

    CWRN(QtInfoMsg, QStringLiteral("TcpInputPlugin2(%1): Creating new TcpTask2"), pluginId);
    if (tasks.contains(number) || threads.value(number) != thread) // made, or stopped, within
        return tasks.value(number);
    auto *task = new TcpTask2(nullptr);
    task->setNum(number);
    {
        const QWriteLocker locker(&tasksLock);
        tasks.insert(number, task);
    }
    connect(this, &TcpInputPlugin2::logSize, task, &TcpTask2::logSize, Qt::QueuedConnection);
    connect(this, &TcpInputPlugin2::stopSignal, task, &TcpTask2::stop, Qt::QueuedConnection);
    connect(task, &TcpTask2::receivedData, this, &TcpInputPlugin2::slotReceivedData,
            Qt::QueuedConnection);
    connect(task, &TcpTask2::query, this, &TcpInputPlugin2::onQuery, Qt::QueuedConnection);
    task->moveToThread(thread);
    return task;
}

// False if the system refuses another thread (Qt has said so then): it is forgotten.
bool TcpInputPlugin2::startThread(int number)
{
    QThread *thread = threads.value(number);
    if (!thread->isRunning())
        thread->start(QThread::InheritPriority);
    if (thread->isRunning())
        return true;
    delete threads.take(number);
    return false;
}

void TcpInputPlugin2::onConfigChanged() {}

bool TcpInputPlugin2::start()
{
    if (destroying)
        return false;
    ListenAddress listen{QHostAddress(QHostAddress::AnyIPv4), DefaultPort};
    if (!readConfig(listen)) {
        CWRN(QtWarningMsg,
             QStringLiteral("TcpInputPlugin2(%1): Failed to setup certificates, aborting"),
             pluginId);
        return false;
    }
    connTemplate.setLocalAddress(listen.address);
    connTemplate.setLocalPort(listen.port);

    CWRN(QtDebugMsg, QStringLiteral("TcpInputPlugin2(%1): Listening on %2:%3"), pluginId,
         listen.address.toString(), listen.port);
    if (useSsl)
        listenTls(listen);
    else
        listenTcp(listen);

    statusTimer.setInterval(StatusIntervalMs);
    statusTimer.start();
    connect(&statusTimer, &QTimer::timeout, this, &TcpInputPlugin2::showThreads);
    return true;
}

bool TcpInputPlugin2::readConfig(ListenAddress &listen)
{
    // Sorted by key. Deliberate: time-out, pool size and TLS are members and keep their value when
    // their key is removed; port and address return to their defaults.
    const QStringList keys = config.keys();
    bool stamping = false;
    for (const QString &key : keys) {
        const QJsonValue value = config.value(key);
        const int number = value.toInt(0);
        if (key == QLatin1String("port") && number > 0 && number <= HighestPort)
            listen.port = static_cast<quint16>(number);
        else if (key == QLatin1String("ipAddr") && !listen.address.setAddress(value.toString()))
            listen.address = QHostAddress(QHostAddress::LocalHost);
        else if (key == QLatin1String("interface"))
            assignInterfaceAddress(value.toString(), listen.address);
        else if (key == QLatin1String("offsets"))
            stamping = value.toBool(false);
        else if (key == QLatin1String("timeout") && number > 0)
            timeoutMs = toMilliseconds(number);
        else if (key == QLatin1String("threadpoolSize") && number > 0)
            poolSize = number;
        else if (key == QLatin1String("ssl") && !readSsl(value.toObject()))
            return false;
    }
    tcpServer.setStamping(stamping);
    sslServer.setStamping(stamping);
    return true;
}

bool TcpInputPlugin2::readSsl(const QJsonObject &object)
{
    useSsl = true; // stays, whatever comes of it
    if (!QSslSocket::supportsSsl()) {
        CWRN(QtWarningMsg, QStringLiteral("TcpInputPlugin2(%1): No usable TLS backend"), pluginId);
        return false;
    }
    QSslConfiguration sslConfig;
    if (!ssl::readSslConfig(object, sslConfig))
        return false;
    sslServer.setSslConfiguration(sslConfig);
    return true;
}

// Deliberate, here and for TLS: nothing ever undoes these connections, so an object that is started
// twice hears of each connection twice. And the result of listen() is not looked at.
void TcpInputPlugin2::listenTcp(const ListenAddress &listen)
{
    CWRN(QtInfoMsg, QStringLiteral("TcpInputPlugin2(%1): Starting TCP server on port %2"), pluginId,
         listen.port);
    connect(&tcpServer, &QTcpServer::newConnection, this, &TcpInputPlugin2::handleConnection);
    tcpServer.listen(listen.address, listen.port);
}

void TcpInputPlugin2::listenTls(const ListenAddress &listen)
{
    CWRN(QtInfoMsg, QStringLiteral("TcpInputPlugin2(%1): Starting SSL server on port %2"), pluginId,
         listen.port);
    connect(&sslServer, &QTcpServer::pendingConnectionAvailable, this,
            &TcpInputPlugin2::handleConnection);
    connect(&sslServer, &QSslServer::errorOccurred, this, &TcpInputPlugin2::socketError);
    connect(&sslServer, &QSslServer::sslErrors, this, &TcpInputPlugin2::sslErrors);
    if (sslServer.sslConfiguration().handshakeMustInterruptOnError())
        connect(&sslServer, &QSslServer::handshakeInterruptedOnError, this,
                &TcpInputPlugin2::hshakeError, Qt::DirectConnection);
    sslServer.listen(listen.address, listen.port);
}

bool TcpInputPlugin2::stop()
{
    if (destroying)
        return true; // under way
    CWRN(QtDebugMsg, QStringLiteral("TcpInputPlugin2(%1): stop()"), pluginId);
    if (useSsl)
        sslServer.close();
    else
        tcpServer.close();
    forgetUntaken();

    Q_EMIT stopSignal();
    QThread::msleep(StopPauseMs);
    retireTasks();
    retired.removeAll(nullptr);
    for (QThread *thread : std::as_const(threads)) {
        thread->deleteLater(); // joins: see ~WorkerThread
        retired.append(thread);
    }
    threads.clear();
    return true;
}

// Under the lock: no discard() of another thread is inside a task when it is retired.
void TcpInputPlugin2::retireTasks()
{
    const QWriteLocker locker(&tasksLock);
    for (TcpTask2 *task : std::as_const(tasks))
        task->deleteLater();
    tasks.clear();
}

QString TcpInputPlugin2::getStatus()
{
    const QTcpServer &server = activeServer();
    QString result = QStringLiteral("Listen: %2:%3, timeout: %1s, pool size: %4\r\n")
                             .arg(timeoutMs / 1000)
                             .arg(server.serverAddress().toString())
                             .arg(server.serverPort())
                             .arg(poolSize);
    // Calls across threads; this thread alone removes tasks.
    for (TcpTask2 *task : std::as_const(tasks))
        result += task->getInfo(QStringLiteral("   "));
    return result;
}

void TcpInputPlugin2::discard(int length, const QMap<QString, QString> &subid)
{
    const auto text = subid.constFind(QStringLiteral("task"));
    if (text == subid.constEnd()) {
        CWRN(QtDebugMsg, QStringLiteral("TcpInput2(%1): subid[task] not set"), pluginId);
        return;
    }
    const int number = text->toInt(); // 0 for what is no number
    TcpTask2 *task = nullptr;
    auto result = TcpTask2::DiscardResult::Posted;
    {
        const QReadLocker locker(&tasksLock);
        task = tasks.value(number);
        if (task)
            result = task->tryDiscard(length, subid);
    }
    if (!task)
        CWRN(QtDebugMsg, QStringLiteral("TcpInput2(%1): discarding for non-existing task %2"),
             pluginId, number);
    else
        TcpTask2::logDiscard(result, subid);
}

void TcpInputPlugin2::slotReceivedData(shared_parsedData data)
{
    data->setPluginId(pluginId);
    Q_EMIT receivedData(data);
}

QStringList TcpInputPlugin2::onQuery(QString q)
{
    return Q_EMIT query(q);
}

void TcpInputPlugin2::socketError(QSslSocket *socket, QAbstractSocket::SocketError)
{
    CWRN(QtWarningMsg, QStringLiteral("TcpInputPlugin2(%1): SSL Socket error: %2"), pluginId,
         socket->errorString());
}

void TcpInputPlugin2::threadFinished()
{
    if (draining) // who destroys a plugin does not hear of its threads
        return;
    CWRN(QtDebugMsg, QStringLiteral("  -- TI2: thread finished"));
}

void TcpInputPlugin2::handleConnection()
{
    if (destroying || !activeServer().hasPendingConnections() || handOver())
        return;
    ++untaken;
    // What was accepted on top would take the descriptors that the worker's thread waits for.
    activeGuard().hold(true);
    if (!retryTimer.isActive())
        retryTimer.start(FirstRetryMs);
}

// The socket stays in the server until the task takes it, in its own thread. When all that is
// pending has been dealt out before, the task will find nothing to take.
bool TcpInputPlugin2::handOver()
{
    const int number = taskIndex;
    TcpTask2 *task = getTask();
    if (!task)
        return false;
    if (taskIndex != number) // another was handed over within a line, whose handler may run the
        return handOver(); // event loop

    Connection conn = connTemplate;
    conn.setSsl(useSsl);
    if (useSsl) {
        conn.setSslServer(&sslServer);
        sslServer.reserveFor(task->thread());
    } else {
        conn.setTcpServer(&tcpServer);
        tcpServer.reserveFor(task->thread());
    }
    conn.setPluginId(pluginId);
    conn.setTimeout(timeoutMs);
    taskIndex = (taskIndex + 1) % poolSize; // before the line, for those that come in there
    CWRN(QtDebugMsg, QStringLiteral("TcpInputPlugin2(%1): new connection, %2"), pluginId,
         currentThreadNumber());
    if (tasks.value(number) != task) // stopped within the line, and the connection was closed
        return true;
    // As by its name "addConnection", without looking that up for every connection.
    QMetaObject::invokeMethod(
            task, [task, conn] { task->addConnection(conn); }, Qt::QueuedConnection);
    return true;
}

// Nothing announces a pending connection a second time.
void TcpInputPlugin2::retryUntaken()
{
    if (!WorkerThread::isAvailable())
        return;
    while (untaken > 0 && activeServer().hasPendingConnections()) {
        if (!handOver()) {
            retryTimer.start(qMin(2 * retryTimer.interval(), LongestRetryMs));
            return;
        }
        --untaken;
    }
    forgetUntaken();
}

void TcpInputPlugin2::forgetUntaken()
{
    untaken = 0;
    retryTimer.stop();
    activeGuard().hold(false);
}

void TcpInputPlugin2::showThreads()
{
    const QStringList level = query(QStringLiteral("loglevel"));
    if (!level.value(0).contains(QLatin1String("debug")))
        return;
    CWRN(QtDebugMsg, QStringLiteral("TcpInputPlugin2 %3: #threads = %1, #tasks = %2"),
         static_cast<qint64>(threads.size()), static_cast<qint64>(tasks.size()), pluginId);
    Q_EMIT logSize(pluginId);
    QThread::msleep(ReportPauseMs);
}

void TcpInputPlugin2::sslErrors(QSslSocket *, const QList<QSslError> &)
{
    CWRN(QtWarningMsg, QStringLiteral("TcpInputPlugin2(%1): SSL Errors"), pluginId);
}

void TcpInputPlugin2::hshakeError(QSslSocket *, const QSslError &error)
{
    CWRN(QtWarningMsg, QStringLiteral("TcpInputPlugin2(%1): SSL handshake error: %2"), pluginId,
         error.errorString());
}

QTcpServer &TcpInputPlugin2::activeServer()
{
    return useSsl ? static_cast<QTcpServer &>(sslServer) : tcpServer;
}

AcceptGuard &TcpInputPlugin2::activeGuard()
{
    return useSsl ? sslServer.guard : tcpServer.guard;
}
