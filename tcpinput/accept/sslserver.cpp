// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "tcpinput/accept/sslserver.h"

#include "tcpinput/receive/receivingsocket.h"
#include "tls/context.h"
#include "tls/errors.h"

#include <QtCore/QElapsedTimer>
#include <QtCore/QMetaMethod>
#include <QtCore/QPointer>
#include <QtCore/QThread>

#include <algorithm>
#include <utility>

#include <unistd.h>

namespace {

// So many more than may be open are accepted before the event loop has its turn. To close a
// handshake of Qt's engine and to begin another one takes a tenth of a millisecond, and Qt accepts
// for as long as connections wait: peers that connect again at once would have this thread do
// nothing else.
constexpr int MostInExcess = 64;
// There can be more all the same, if many PROXY headers are complete at once.
constexpr qsizetype MostClosedInOneGo = 64;

// Qt keeps a socket connected if its peer ends TLS with close_notify but keeps TCP open, or sends
// what is no TLS any more. Nothing can come then, but the connection would stay until the idle
// time-out.
void disconnectIfOver(QSslSocket *socket)
{
    const QAbstractSocket::SocketError error = socket->error();
    if (error == QAbstractSocket::RemoteHostClosedError
        || error == QAbstractSocket::SslInternalError)
        socket->disconnectFromHost();
}

// Bytes and the end may have come in another thread, before the worker's client connected to the
// socket. This repeats their signals in the worker's thread, once the client has connected.
void announceAgain(QSslSocket *socket)
{
    if (socket->bytesAvailable() > 0)
        Q_EMIT socket->readyRead();
    disconnectIfOver(socket);
    if (socket->state() == QAbstractSocket::UnconnectedState)
        Q_EMIT socket->disconnected();
}

} // namespace

SslServer::SslServer(QObject *parent)
    : AcceptingServer(parent,
                      [this] { return threads.excess() + waiting.size() + proxies.waiting(); }),
      threads([this](HandshakeResult &result) { settle(result); })
{
    // For receivers of its signals with a queued connection.
    qRegisterMetaType<QSslSocket *>();
    qRegisterMetaType<QAbstractSocket::SocketError>();
    qRegisterMetaType<QSslError>();
    qRegisterMetaType<QList<QSslError>>();
    roomTimer.setSingleShot(true);
    connect(&roomTimer, &QTimer::timeout, this, &SslServer::makeRoom);
}

SslServer::~SslServer()
{
    close();
}

void SslServer::close()
{
    QSslServer::close();
    const QPointer<SslServer> self(this); // receivers may delete it: of a socket, of the notice
    QList<QPointer<TlsHandshake>> handshakes;
    for (TlsHandshake *each : findChildren<TlsHandshake *>(QString(), Qt::FindDirectChildrenOnly))
        handshakes.append(each);
    for (const QPointer<TlsHandshake> &handshake : std::as_const(handshakes)) {
        if (handshake)
            handshake->drop();
    }
    if (!self)
        return;

    threads.drop();

    for (const ReadySocket &connection : waiting.takeAll()) {
        if (connection.socket)
            connection.socket->moveToThread(QThread::currentThread()); // which then deletes it
    }
    crowds.finish();
    if (self)
        withoutTls.finish();
    if (self)
        proxies.close(); // its lines may run an event loop
}

TakenConnection SslServer::take()
{
    std::optional<ReadySocket> next = waiting.take();
    if (!next)
        return {};
    if (next->session)
        return {std::make_unique<ReceivingSocket>(next->descriptor.release(),
                                                  next->acceptance.endpoints,
                                                  std::move(next->session)),
                next->acceptance};
    TlsSocket *socket = next->socket.get();
    socket->moveToThread(QThread::currentThread());
    socket->restoreEndpoints();
    connect(
            socket, &QAbstractSocket::errorOccurred, socket, [socket] { disconnectIfOver(socket); },
            Qt::QueuedConnection);
    QMetaObject::invokeMethod(
            socket, [socket] { announceAgain(socket); }, Qt::QueuedConnection);
    return {std::move(next->socket), next->acceptance};
}

void SslServer::setUp(const tls::Settings &settings, int handshakeThreads)
{
    setSslConfiguration(settings.base);
    context = settings.engine == tls::Engine::Own ? std::make_shared<const tls::Context>(settings)
                                                  : nullptr;
    threads.setSize(handshakeThreads);
}

void SslServer::setMostOpen(int value)
{
    mostOpen = value;
    threads.setMostOpen(value);
}

void SslServer::admit(qintptr descriptor, const Acceptance &acceptance)
{
    if (!context)
        return admitToQt(descriptor, acceptance);
    threads.begin(Descriptor(descriptor), acceptance, context, handshakeTimeout());
    guard.accepted();
}

void SslServer::admitToQt(qintptr descriptor, const Acceptance &acceptance)
{
    auto socket = std::make_unique<TlsSocket>(acceptance.endpoints);
    socket->setSslConfiguration(sslConfiguration());
    if (!socket->setSocketDescriptor(descriptor)) {
        ::close(static_cast<int>(descriptor));
        guard.accepted();
        return;
    }
    if (acceptance.isProxied)
        socket->replacePeer();
    auto *handshake = new TlsHandshake(this, std::move(socket));
    if (acceptance.isProxied) {
        handshake->allowSilence(); // the proxy may only look whether somebody listens
        connect(handshake, &TlsHandshake::endedSilently, &proxies, &ProxyGate::countSilent);
    }
    follow(handshake, acceptance);
    guard.accepted();
}

void SslServer::follow(TlsHandshake *handshake, const Acceptance &acceptance)
{
    const auto place =
            qtHandshakes.enter(acceptance.endpoints.peer, {handshake, acceptance.endpoints});
    connect(handshake, &TlsHandshake::movedOn, this, [this, place] { qtHandshakes.moveOn(place); });
    connect(handshake, &TlsHandshake::settled, this, [this, place] { qtHandshakes.leave(place); });
    QElapsedTimer since;
    since.start();
    connect(handshake, &TlsHandshake::cameOut, this,
            [this, since, peer = acceptance.endpoints](TlsHandshake::Outcome outcome) {
                count(outcome, since.nsecsElapsed());
                if (outcome == TlsHandshake::Outcome::NoTls) // later: this is inside the socket
                    QMetaObject::invokeMethod(
                            this, [this, peer] { withoutTls.add(peer.peerText()); },
                            Qt::QueuedConnection);
            });
    const auto over = connect(handshake, &QObject::destroyed, this, [this] { --openHandshakes; });
    connect(handshake, &TlsHandshake::finished, this,
            [this, acceptance, over](TlsSocket *finished) {
                disconnect(over);
                --openHandshakes;
                finished->moveToThread(nullptr); // its parent is null already
                enqueue({std::unique_ptr<TlsSocket>(finished), nullptr, {}, acceptance});
            });
    ++openHandshakes;
    if (qtHandshakes.size() > mostOpen && !roomTimer.isActive())
        roomTimer.start(0);
}

// Not in admit(): receivers of these signals may delete this, which Qt's accepting does not allow.
void SslServer::makeRoom()
{
    // One that waits for this thread is not to blame. Its end may not have been seen yet.
    const auto isSpared = [](const QtHandshake &each) { return each.handshake->waitsForUs(); };
    const QPointer<SslServer> self(this); // receivers of a socket's own signals may delete it
    const qsizetype excess = qtHandshakes.excess(mostOpen, isSpared);
    QStringList closed;
    for (qsizetype left = std::min(excess, MostClosedInOneGo); left > 0; --left) {
        const std::optional<QtHandshake> next = qtHandshakes.goesFirst();
        if (!next)
            break;
        closed.append(next->endpoints.peerText());
        count(TlsHandshake::Outcome::Failed, 0);
        next->handshake->drop();
        if (!self)
            return;
    }
    if (qtHandshakes.size() > mostOpen)
        roomTimer.start(excess > MostClosedInOneGo ? 0 : MakeRoomIntervalMs);
    for (const QString &peer : std::as_const(closed)) {
        if (self)
            crowds.add(peer);
    }
    if (self)
        guard.askGate();
}

// Our own engine makes room in its threads.
bool SslServer::hasRoom() const
{
    return context || qtHandshakes.size() < mostOpen + MostInExcess;
}

void SslServer::count(TlsHandshake::Outcome outcome, qint64 ns)
{
    constexpr qint64 NsPerUs = 1000;
    const auto us = static_cast<quint64>(ns / NsPerUs);
    switch (outcome) {
    case TlsHandshake::Outcome::Done:
        ++counters.handshakesDone;
        counters.handshakeUs += us;
        counters.longestHandshakeUs = std::max(counters.longestHandshakeUs, us);
        break;
    case TlsHandshake::Outcome::Failed:
        ++counters.handshakesFailed;
        break;
    case TlsHandshake::Outcome::TimedOut:
        ++counters.handshakesTimedOut;
        break;
    case TlsHandshake::Outcome::NoTls:
        ++counters.withoutTls;
        break;
    }
}

void SslServer::addTo(InputCounters &sum) const
{
    AcceptingServer::addTo(sum);
    sum.handshakesDone += counters.handshakesDone;
    sum.handshakesFailed += counters.handshakesFailed;
    sum.handshakesTimedOut += counters.handshakesTimedOut;
    sum.withoutTls += counters.withoutTls;
    sum.handshakeUs += counters.handshakeUs;
    sum.longestHandshakeUs = std::max(sum.longestHandshakeUs, counters.longestHandshakeUs);
}

// Of our own engine. Receivers of the signals may delete this.
void SslServer::settle(HandshakeResult &result)
{
    using Outcome = HandshakeResult::Outcome;
    switch (result.outcome) {
    case Outcome::Done: {
        count(TlsHandshake::Outcome::Done, result.ns);
        const QPointer<SslServer> self(this);
        const quint64 before = threads.drops();
        tell(result);
        if (self && threads.drops() == before)
            enqueue({nullptr, std::move(result.session), std::move(result.descriptor),
                     std::move(result.acceptance)});
        return;
    }
    case Outcome::Failed:
        count(TlsHandshake::Outcome::Failed, result.ns);
        return tell(result);
    case Outcome::TimedOut:
        count(TlsHandshake::Outcome::TimedOut, result.ns);
        return tell(result);
    case Outcome::NoTls:
        count(TlsHandshake::Outcome::NoTls, result.ns);
        return withoutTls.add(result.acceptance.endpoints.peerText());
    case Outcome::Silent:
        return proxies.countSilent();
    case Outcome::Crowded:
        count(TlsHandshake::Outcome::Failed, result.ns);
        return crowds.add(result.acceptance.endpoints.peerText());
    }
}

// Emits what a socket of Qt's would have emitted, in its order.
void SslServer::tell(const HandshakeResult &result)
{
    static const QMetaMethod begun =
            QMetaMethod::fromSignal(&QSslServer::startedEncryptionHandshake);
    const tls::HandshakeReport &report = result.report;
    const bool hasFailed = !report.failure.isEmpty();
    const bool tellsBegin = result.begun && isSignalConnected(begun);
    if (!hasFailed && !tellsBegin && report.peerErrors.isEmpty() && report.alerts.isEmpty())
        return;
    auto *const socket =
            new TlsSocket(result.acceptance.endpoints); // receivers may keep it until the next pass
    socket->replacePeer();
    const QPointer<SslServer> self(this);
    const auto emitSafely = [self](auto emission) {
        if (self)
            emission(*self);
    };
    if (tellsBegin)
        emitSafely([&](SslServer &of) { Q_EMIT of.startedEncryptionHandshake(socket); });
    for (const QSslError &error : report.peerErrors)
        emitSafely([&](SslServer &of) { Q_EMIT of.peerVerifyError(socket, error); });
    if (!report.errors.isEmpty())
        emitSafely([&](SslServer &of) { Q_EMIT of.sslErrors(socket, report.errors); });
    for (const tls::HandshakeReport::Alert &alert : report.alerts) {
        const auto signal = alert.sent ? &QSslServer::alertSent : &QSslServer::alertReceived;
        emitSafely([&](SslServer &of) {
            Q_EMIT(of.*signal)
            (socket, tls::alertLevel(alert.value), tls::alertType(alert.value),
             tls::alertText(alert.value));
        });
    }
    if (report.interruption)
        emitSafely([&](SslServer &of) {
            Q_EMIT of.handshakeInterruptedOnError(socket, *report.interruption);
        });
    if (hasFailed) {
        socket->setErrorString(report.failure);
        emitSafely([&](SslServer &of) { Q_EMIT of.errorOccurred(socket, result.error); });
    }
    socket->deleteLater();
}

void SslServer::enqueue(ReadySocket connection)
{
    waiting.add(std::move(connection));
    // The signal is private to Qt's class, but can be invoked by name.
    QMetaObject::invokeMethod(this, "pendingConnectionAvailable", Qt::DirectConnection);
}
