// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "tcpinput/tcpinputplugin2.h"
#include "tcpinput/accept/tlssocket.h"

#include "plugin/acceptpause.h"
#include "plugin/cwrn.h"
#include "plugin/drain.h"
#include "plugin/libraryversion.h"
#include "plugin/subids.h"
#include "tcpinput/renewal.h"
#include "tcpinput/workers/threadid.h"
#include "tcpinput/workers/workerthread.h"

#include <QtCore/QCoreApplication>

#include <any>
#include <utility>

#include <fcntl.h>

namespace {

constexpr int StatusIntervalMs = 10000;
constexpr unsigned long StopPauseMs = 10; // lets the workers begin to end their connections
constexpr unsigned long ReportPauseMs = 1;

} // namespace

TcpInputPlugin2::TcpInputPlugin2(QObject *parent) : IInputPlugin(parent)
{
    initialise();
}

TcpInputPlugin2::TcpInputPlugin2(QObject *parent, const QJsonObject &initial)
    : IInputPlugin(parent, initial)
{
    initialise();
}

void TcpInputPlugin2::initialise()
{
    qRegisterMetaType<Connection>();
    qRegisterMetaType<shared_parsedData>();

    connect(&untaken, &QTimer::timeout, this, &TcpInputPlugin2::retryUntaken);
}

WorkerPool TcpInputPlugin2::makePool()
{
    constexpr auto Queued = Qt::QueuedConnection; // to and from other threads
    const auto setUpThread = [this](QThread *thread) {
        connect(this, &TcpInputPlugin2::stopSignal, thread, &QThread::quit, Queued);
        connect(thread, &QThread::finished, this, &TcpInputPlugin2::threadFinished, Queued);
    };
    const auto setUpTask = [this](TcpTask2 *task) {
        task->setConsumer(this);
        connect(this, &TcpInputPlugin2::logSize, task, &TcpTask2::logSize, Queued);
        connect(this, &TcpInputPlugin2::stopSignal, task, &TcpTask2::stop, Queued);
        connect(task, &TcpTask2::receivedData, this, &TcpInputPlugin2::slotReceivedData, Queued);
        connect(task, &TcpTask2::query, this, &TcpInputPlugin2::onQuery, Queued);
        if (leaving)
            QMetaObject::invokeMethod(
                    task, [task] { task->leave(std::chrono::milliseconds(0), 0); }, Queued);
    };
    return WorkerPool(pluginId, setUpThread, setUpTask);
}

TcpInputPlugin2::~TcpInputPlugin2()
{
    destroying = true;
    untaken.stop();
    servers.dropHeaders(); // while the object is whole: its lines may run the host's event loop
    // Calls across threads: stop() only posts to the workers. The events that it processes are
    // those of this thread.
    for (TcpTask2 *task : pool.allTasks())
        task->stop();
    pool.retireTasks(); // each is deleted in its own thread, before that thread ends
    draining = true;
    pool.finish();
    // Delivers the last records of the workers here, while this object is still an input plugin.
    QCoreApplication::sendPostedEvents(this, QEvent::MetaCall);
}

bool TcpInputPlugin2::event(QEvent *event)
{
    // The destructor processes the host's events: one of them may be a deletion of this object.
    // Test the type first: the construction of the servers already sends events, before destroying
    // has a value.
    if (event->type() == QEvent::DeferredDelete && destroying)
        return true;
    if (auto *question = CountersEvent::from(event)) {
        if (question->hasLayout(CountersEvent::Layout))
            fill(question->answer().emplace());
        return true;
    }
    if (auto *request = CertificateRenewal::from(event)) {
        request->answer(renewCertificates(servers.tls, configuration, config, pluginId));
        return true;
    }
    if (auto *request = AcceptPause::from(event)) {
        servers.setPaused(request->isWanted());
        request->confirm();
        return true;
    }
    if (auto *request = Drain::from(event)) {
        leave(request->spread());
        request->confirm(Acceptance::latestNumber());
        return true;
    }
    if (auto *request = SharedPort::from(event)) {
        lend(*request);
        return true;
    }
    if (auto *question = LibraryVersionEvent::from(event)) {
        question->answer(LibraryVersion::ofHeaders());
        return true;
    }
    return IInputPlugin::event(event);
}

void TcpInputPlugin2::leave(std::chrono::milliseconds spread)
{
    if (destroying)
        return;
    CWRN(QtInfoMsg,
         QStringLiteral("TcpInputPlugin2(%1): Accepting no more, devices are told within %2 ms"),
         pluginId, static_cast<qint64>(spread.count()));
    leaving = true;
    servers.stopListening();
    const auto &tasks = pool.allTasks(); // with those that the last connections were handed to
    double place = 0.5;
    for (TcpTask2 *task : tasks) {
        const double phase = place / static_cast<double>(tasks.size());
        QMetaObject::invokeMethod(
                task, [task, spread, phase] { task->leave(spread, phase); }, Qt::QueuedConnection);
        ++place;
    }
}

void TcpInputPlugin2::lend(SharedPort &request)
{
    if (request.step() == SharedPort::Step::Use) {
        shared = Descriptor(request.take());
        const auto *counts = std::any_cast<CommonCounts>(&request.limitCounts());
        common = counts ? *counts : CommonCounts();
        return;
    }
    const QTcpServer &server = servers.active();
    if (!server.isListening())
        return;
    const auto &budget = configuration.serving.budget;
    request.give(::fcntl(static_cast<int>(server.socketDescriptor()), F_DUPFD_CLOEXEC, 0),
                 CommonCounts{servers.limiter().count(), budget ? budget->count() : nullptr});
}

void TcpInputPlugin2::countTogether()
{
    const CommonCounts counts = std::exchange(common, {});
    if (counts.connections)
        servers.limiter().setCount(counts.connections);
    if (const auto &budget = configuration.serving.budget; budget && counts.bytes)
        budget->setCount(counts.bytes);
}

void TcpInputPlugin2::fill(InputCounters &counters)
{
    servers.addTo(counters);
    pool.addTo(counters);
    if (const auto &budget = configuration.serving.budget)
        counters.paused = static_cast<quint64>(budget->paused.load());
}

void TcpInputPlugin2::drop(int len)
{
    CWRN(QtInfoMsg, QStringLiteral("TcpInputPlugin2(%1): dropping %2 bytes"), pluginId, len);
}

bool TcpInputPlugin2::start()
{
    Q_ASSERT(QThread::currentThread() == thread());
    if (destroying || !Configuration::check(config, pluginId))
        return false;
    servers.use(configuration.useTls || config.contains(QLatin1String("ssl")));
    const bool usable = configuration.apply(config, pluginId);
    const Configuration used = configuration; // a message handler may call start() again
    pool.setSize(used.poolSize);
    if (!usable) {
        CWRN(QtWarningMsg,
             QStringLiteral("TcpInputPlugin2(%1): Failed to setup certificates, aborting"),
             pluginId);
        return false;
    }
    countTogether();
    servers.setUp(used.serving, used.proxies, used.accepting);
    connTemplate.setLocalAddress(used.address);
    connTemplate.setLocalPort(used.port);

    CWRN(QtDebugMsg, QStringLiteral("TcpInputPlugin2(%1): Listening on %2:%3"), pluginId,
         used.address.toString(), used.port);
    if (used.useTls)
        listenTls(used);
    else
        listenTcp(used);

    statusTimer.start(StatusIntervalMs);
    connect(&statusTimer, &QTimer::timeout, this, &TcpInputPlugin2::showThreads);
    return true;
}

// Deliberate, here and in listenTls(): nothing ever undoes these signal connections, so an object
// that is started twice is told of each connection twice. The result of listen() is ignored.
void TcpInputPlugin2::listenTcp(const Configuration &used)
{
    CWRN(QtInfoMsg, QStringLiteral("TcpInputPlugin2(%1): Starting TCP server on port %2"), pluginId,
         used.port);
    constexpr auto Handle = &TcpInputPlugin2::handleConnection;
    if (servers.tcp.announcesEach())
        connect(&servers.tcp, &QTcpServer::pendingConnectionAvailable, this, Handle);
    else
        connect(&servers.tcp, &QTcpServer::newConnection, this, Handle);
    servers.tcp.listen(used.address, used.port, std::exchange(shared, {}));
}

void TcpInputPlugin2::listenTls(const Configuration &used)
{
    CWRN(QtInfoMsg, QStringLiteral("TcpInputPlugin2(%1): Starting SSL server on port %2"), pluginId,
         used.port);
    setUpTls(servers.tls, used);
    connect(&servers.tls, &QTcpServer::pendingConnectionAvailable, this,
            &TcpInputPlugin2::handleConnection);
    connect(&servers.tls, &QSslServer::errorOccurred, this, &TcpInputPlugin2::socketError);
    connect(&servers.tls, &QSslServer::sslErrors, this, &TcpInputPlugin2::sslErrors);
    if (servers.tls.sslConfiguration().handshakeMustInterruptOnError())
        connect(&servers.tls, &QSslServer::handshakeInterruptedOnError, this,
                &TcpInputPlugin2::hshakeError, Qt::DirectConnection);
    servers.tls.listen(used.address, used.port, std::exchange(shared, {}));
}

bool TcpInputPlugin2::stop()
{
    Q_ASSERT(QThread::currentThread() == thread());
    if (destroying)
        return true; // the destructor stops everything
    CWRN(QtDebugMsg, QStringLiteral("TcpInputPlugin2(%1): stop()"), pluginId);
    leaving = false;
    shared = {};
    common = {};
    servers.close();
    untaken.forget(servers.guard());

    Q_EMIT stopSignal();
    QThread::msleep(StopPauseMs);
    pool.retireTasks();
    pool.retireThreads();
    return true;
}

QString TcpInputPlugin2::getStatus()
{
    const QTcpServer &server = servers.active();
    QString result = QStringLiteral("Listen: %2:%3, timeout: %1s, pool size: %4\r\n")
                             .arg(configuration.timeoutMs / 1000)
                             .arg(server.serverAddress().toString())
                             .arg(server.serverPort())
                             .arg(configuration.poolSize);
    // Calls across threads. Only this thread removes tasks, so no lock is needed.
    for (TcpTask2 *task : pool.allTasks())
        result += task->getInfo(QStringLiteral("   "));
    if (const auto &budget = configuration.serving.budget)
        result += budget->status();
    return result + servers.limiter().status();
}

void TcpInputPlugin2::discard(int length, const QMap<QString, QString> &subid)
{
    const subids::Values values(subid);
    if (!values.task) {
        CWRN(QtDebugMsg, QStringLiteral("TcpInput2(%1): subid[task] not set"), pluginId);
        return;
    }
    const int number = values.task->toInt(); // 0 if the text is no number
    const auto result = pool.tryDiscard(number, length, values);
    if (!result)
        CWRN(QtDebugMsg, QStringLiteral("TcpInput2(%1): discarding for non-existing task %2"),
             pluginId, number);
    else
        TcpTask2::logDiscard(*result, subid);
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
    const auto *const known = dynamic_cast<const TlsSocket *>(socket);
    if (configuration.logPeers && known)
        CWRN(QtWarningMsg, QStringLiteral("TcpInputPlugin2(%1): SSL Socket error: %2, from %3"),
             pluginId, socket->errorString(), known->peerText());
    else
        CWRN(QtWarningMsg, QStringLiteral("TcpInputPlugin2(%1): SSL Socket error: %2"), pluginId,
             socket->errorString());
}

void TcpInputPlugin2::threadFinished()
{
    if (!draining) // the plugin is not being destroyed
        CWRN(QtDebugMsg, QStringLiteral("  -- TI2: thread finished"));
}

void TcpInputPlugin2::handleConnection()
{
    Q_ASSERT(QThread::currentThread() == thread());
    if (destroying || !servers.active().hasPendingConnections() || handOver())
        return;
    untaken.add(servers.guard());
}

// The socket stays in the server until the task takes it, in the task's thread. If every pending
// connection is reserved already, the task finds nothing to take.
bool TcpInputPlugin2::handOver()
{
    const int number = pool.turn();
    TcpTask2 *task = pool.task();
    if (!task)
        return false;
    // Another connection was handed over during a log line: its handler may run the event loop.
    if (pool.turn() != number)
        return handOver();

    Connection conn = connTemplate;
    servers.reserveFor(task->thread(), conn);
    conn.setPluginId(pluginId);
    conn.setTimeout(configuration.timeoutMs);
    pool.endTurn(); // before the line, whose handler may hand over others
    CWRN(QtDebugMsg, QStringLiteral("TcpInputPlugin2(%1): new connection, %2"), pluginId,
         currentThreadNumber());
    if (pool.existingTask(number) != task) // stopped during the line: the connection is closed
        return true;
    // The same as a call by the name "addConnection", without looking it up for every connection.
    QMetaObject::invokeMethod(
            task, [task, conn] { task->addConnection(conn); }, Qt::QueuedConnection);
    return true;
}

void TcpInputPlugin2::retryUntaken()
{
    if (WorkerThread::isAvailable())
        untaken.retry(servers, [this] { return handOver(); });
}

void TcpInputPlugin2::showThreads()
{
    if (!query(QStringLiteral("loglevel")).value(0).contains(QLatin1String("debug")))
        return;
    CWRN(QtDebugMsg, QStringLiteral("TcpInputPlugin2 %3: #threads = %1, #tasks = %2"),
         static_cast<qint64>(pool.allThreads().size()), static_cast<qint64>(pool.allTasks().size()),
         pluginId);
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
