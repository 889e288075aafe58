// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "host/sinks/nats/natsconnection.h"

#include <QtCore/QFile>
#include <QtCore/QThread>

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

namespace host {
namespace {

// Of an attempt to connect: for TCP, and once more for what follows.
constexpr int ConnectTimeoutMs = 2000;
// A server that answers none of two pings is given up.
constexpr int PingIntervalMs = 3000;
constexpr int MaxPingsOut = 2;

// The same for a machine that has gone, or takes nothing: over TLS the library waits for the
// socket, and knows no limit. What is unsent when a connection is given up is not delivered later
// than that, either.
constexpr int DeadAfterSeconds = 5;

void limitSilence(int socket)
{
    const auto set = [socket](int level, int option, int value) {
        ::setsockopt(socket, level, option, &value, sizeof value);
    };
    set(SOL_SOCKET, SO_KEEPALIVE, 1);
    set(IPPROTO_TCP, TCP_KEEPIDLE, 2);
    set(IPPROTO_TCP, TCP_KEEPINTVL, 1);
    set(IPPROTO_TCP, TCP_USER_TIMEOUT, DeadAfterSeconds * 1000);
}

// Without the place in the library's sources that comes first.
QString lastError(natsStatus status)
{
    const char *known = nats_GetLastError(nullptr);
    const QString text = QString::fromUtf8(known && *known ? known : natsStatus_GetText(status));
    const qsizetype place = text.startsWith(u'(') ? text.indexOf(u"): ") : -1;
    return place < 0 ? text : text.mid(place + 3);
}

bool isReadable(const QString &file)
{
    return file.isEmpty() || QFile(file).open(QIODevice::ReadOnly);
}

} // namespace

NatsConnection::NatsConnection(const QByteArray &inboxPrefix, QObject *parent)
    : QObject(parent),
      inbox(inboxPrefix)
{}

NatsConnection::~NatsConnection()
{
    if (connector.joinable())
        connector.join();
    readNotifier.reset();
    writeNotifier.reset();
    subscription.reset();
    connection.reset();
    if (descriptor >= 0)
        ::close(descriptor);
}

QString NatsConnection::settingsError(const NatsSettings &settings)
{
    for (const QString &file :
         {settings.caFile, settings.certificateFile, settings.keyFile, settings.credentialsFile}) {
        if (!isReadable(file))
            return QStringLiteral("Cannot read %1").arg(file);
    }
    natsOptions *made = nullptr;
    if (natsOptions_Create(&made) != NATS_OK)
        return QStringLiteral("Out of memory");
    const Options options(made);
    return apply(settings, options.get());
}

QString NatsConnection::apply(const NatsSettings &settings, natsOptions *target)
{
    const auto check = [](natsStatus result, const QString &what) {
        return result == NATS_OK ? QString()
                                 : QStringLiteral("%1: %2").arg(what, lastError(result));
    };
    QString error;
    if (settings.wantsTls())
        error = check(natsOptions_SetSecure(target, true), QStringLiteral("TLS"));
    if (error.isEmpty() && !settings.caFile.isEmpty())
        error = check(natsOptions_LoadCATrustedCertificates(
                              target, QFile::encodeName(settings.caFile).constData()),
                      settings.caFile);
    if (error.isEmpty() && !settings.certificateFile.isEmpty())
        error = check(natsOptions_LoadCertificatesChain(
                              target, QFile::encodeName(settings.certificateFile).constData(),
                              QFile::encodeName(settings.keyFile).constData()),
                      settings.certificateFile);
    if (error.isEmpty() && !settings.credentialsFile.isEmpty())
        error = check(
                natsOptions_SetUserCredentialsFromFiles(
                        target, QFile::encodeName(settings.credentialsFile).constData(), nullptr),
                settings.credentialsFile);
    return error;
}

QString NatsConnection::prepare(const NatsSettings &settings, const QString &server)
{
    natsOptions *made = nullptr;
    if (natsOptions_Create(&made) != NATS_OK)
        return QStringLiteral("out of memory");
    options.reset(made);
    const QByteArray url = "nats://" + server.toUtf8();
    status = natsOptions_SetURL(made, url.constData());
    // The user is no part of the URL: so it is in no error text of the library.
    if (status == NATS_OK && !settings.user.isEmpty() && settings.password.isNull())
        status = natsOptions_SetToken(made, settings.user.toUtf8().constData());
    else if (status == NATS_OK && !settings.user.isEmpty())
        status = natsOptions_SetUserInfo(made, settings.user.toUtf8().constData(),
                                         settings.password.toUtf8().constData());
    if (status == NATS_OK)
        status = natsOptions_SetName(made, "inputhost");
    if (status == NATS_OK)
        status = natsOptions_SetAllowReconnect(made, false);
    if (status == NATS_OK)
        status = natsOptions_SetTimeout(made, ConnectTimeoutMs);
    if (status == NATS_OK)
        status = natsOptions_SetPingInterval(made, PingIntervalMs);
    if (status == NATS_OK)
        status = natsOptions_SetMaxPingsOut(made, MaxPingsOut);
    if (status == NATS_OK)
        status = natsOptions_SetSendAsap(made, true); // no thread that flushes: flush() does
    // natsSubscription_NextMsg() would take such an answer and not say whose it was: it stops
    // there, and the answers behind it would wait.
    if (status == NATS_OK)
        status = natsOptions_DisableNoResponders(made, true);
    if (status == NATS_OK)
        status = natsOptions_SetEventLoop(made, this, attach, watchReads, watchWrites, detach);
    return status == NATS_OK ? apply(settings, made) : lastError(status);
}

QString NatsConnection::open(const NatsSettings &settings, const QString &server)
{
    error = prepare(settings, server);
    if (!error.isEmpty())
        return error;
    attempting = true;
    connector = std::thread([this] { connectNow(); });
    return {};
}

// In the connector's thread.
void NatsConnection::connectNow()
{
    natsConnection *made = nullptr;
    status = natsConnection_Connect(&made, options.get());
    connection.reset(made);
    if (status != NATS_OK)
        error = lastError(status);
    nats_ReleaseThreadMemory();
    QMetaObject::invokeMethod(this, &NatsConnection::noteOutcome, Qt::QueuedConnection);
}

void NatsConnection::noteOutcome()
{
    connector.join();
    attempting = false;
    if (status == NATS_OK && subscribe()) {
        Q_EMIT opened();
        return;
    }
    if (error.isEmpty())
        error = lastError(status);
    Q_EMIT failed(error, status == NATS_CONNECTION_AUTH_FAILED);
}

bool NatsConnection::subscribe()
{
    natsSubscription *made = nullptr;
    const QByteArray subject = inbox + '*';
    status = natsConnection_SubscribeSync(&made, connection.get(), subject.constData());
    subscription.reset(made);
    if (status == NATS_OK)
        status = natsSubscription_SetPendingLimits(made, -1, -1);
    if (status != NATS_OK)
        return false;
    readNotifier = std::make_unique<QSocketNotifier>(descriptor, QSocketNotifier::Read);
    connect(readNotifier.get(), &QSocketNotifier::activated, this, &NatsConnection::receive);
    writeNotifier = std::make_unique<QSocketNotifier>(descriptor, QSocketNotifier::Write);
    writeNotifier->setEnabled(false);
    connect(writeNotifier.get(), &QSocketNotifier::activated, this, &NatsConnection::flush);
    flush();
    return true;
}

bool NatsConnection::send(const NatsRequest &request, quint64 token)
{
    const QByteArray reply = inbox + QByteArray::number(token);
    natsMsg *made = nullptr;
    status = natsMsg_Create(&made, request.subject.constData(), reply.constData(),
                            request.data.data(), static_cast<int>(request.data.size()));
    const std::unique_ptr<natsMsg, Free> message(made);
    for (const auto &[name, value] : request.headers) {
        if (status == NATS_OK)
            status = natsMsgHeader_Set(made, name, value.constData());
    }
    if (status == NATS_OK)
        status = natsConnection_PublishMsg(connection.get(), made);
    if (status == NATS_OK)
        return true;
    error = lastError(status);
    QMetaObject::invokeMethod(this, &NatsConnection::noteEnd, Qt::QueuedConnection);
    return false;
}

void NatsConnection::flush()
{
    if (unsent && subscription)
        natsConnection_ProcessWriteEvent(connection.get());
    if (writeNotifier)
        writeNotifier->setEnabled(unsent);
}

void NatsConnection::receive()
{
    natsConnection_ProcessReadEvent(connection.get());
    natsMsg *message = nullptr;
    while (natsSubscription_NextMsg(&message, subscription.get(), 0) == NATS_OK)
        tell(message);
    Q_EMIT drained();
    flush();
}

void NatsConnection::tell(natsMsg *message)
{
    const std::unique_ptr<natsMsg, Free> owned(message);
    const QByteArray subject(natsMsg_GetSubject(message));
    const QByteArray data(natsMsg_GetData(message), natsMsg_GetDataLength(message));
    Q_EMIT answered(subject.mid(inbox.size()).toULongLong(), data);
}

qint64 NatsConnection::maxPayload() const
{
    return natsConnection_GetMaxPayload(connection.get());
}

QString NatsConnection::complaint() const
{
    const char *text = nullptr;
    natsConnection_GetLastError(connection.get(), &text);
    return QString::fromUtf8(text);
}

void NatsConnection::noteEnd()
{
    // Without a subscription the attempt has failed, and failed() says so.
    if (!subscription || std::exchange(over, true))
        return;
    readNotifier->setEnabled(false);
    writeNotifier->setEnabled(false);
    const QString reason = complaint();
    Q_EMIT ended(reason.isEmpty() ? error : reason);
}

natsStatus NatsConnection::attach(void **userData, void *loop, natsConnection *, natsSock socket)
{
    *userData = loop;
    auto *self = static_cast<NatsConnection *>(loop);
    self->descriptor = ::dup(socket);
    if (self->descriptor < 0)
        return NATS_SYS_ERROR;
    limitSilence(self->descriptor);
    return NATS_OK;
}

// Reading goes on until the connection is over: then the library calls this, and only then.
natsStatus NatsConnection::watchReads(void *userData, bool on)
{
    auto *self = static_cast<NatsConnection *>(userData);
    if (!on)
        QMetaObject::invokeMethod(self, &NatsConnection::noteEnd, Qt::QueuedConnection);
    return NATS_OK;
}

natsStatus NatsConnection::watchWrites(void *userData, bool on)
{
    auto *self = static_cast<NatsConnection *>(userData);
    self->unsent = on;
    if (on && QThread::currentThread() != self->thread()) // a ping
        QMetaObject::invokeMethod(self, &NatsConnection::flush, Qt::QueuedConnection);
    return NATS_OK;
}

natsStatus NatsConnection::detach(void *)
{
    return NATS_OK;
}

} // namespace host
