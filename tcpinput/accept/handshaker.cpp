// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "tcpinput/accept/handshaker.h"

#include "tls/context.h"

#include <QtCore/QCoreApplication>
#include <QtCore/QDeadlineTimer>

#include <algorithm>
#include <cerrno>
#include <optional>
#include <utility>

#include <sys/ioctl.h>
#include <sys/socket.h>

namespace {

constexpr qsizetype ReceiveBytes = 16 * 1024;
constexpr char HandshakeRecord = 0x16; // first byte of a ClientHello's record, RFC 8446, 5.1
constexpr int Ipv6NetworkBytes = 8; // a device's own network: it may have all addresses in it

bool hasUnread(int descriptor)
{
    int bytes = 0;
    return ::ioctl(descriptor, FIONREAD, &bytes) == 0 && bytes > 0;
}

} // namespace

struct Handshaker::Open
{
    Open(Handshaker &keeper, Descriptor accepted, Acceptance accepting, const Terms &terms)
        : descriptor(std::move(accepted)),
          acceptance(std::move(accepting)),
          context(terms.context),
          timeoutMs(terms.timeoutMs),
          key(keyOf(acceptance.endpoints.peer)),
          reader(*this, keeper, QSocketNotifier::Read)
    {
        clock.start();
    }

    //! Calls the handshaker without a signal.
    class Notifier : public QSocketNotifier
    {
    public:
        Notifier(Open &of, Handshaker &keeper, Type type)
            : QSocketNotifier(of.descriptor.get(), type, nullptr),
              handshake(of),
              handshaker(keeper)
        {}
        bool event(QEvent *event) override
        {
            if (event->type() != QEvent::SockAct)
                return QSocketNotifier::event(event);
            handshaker.enqueue(handshake);
            return true;
        }

    private:
        Open &handshake;
        Handshaker &handshaker;
    };

    Descriptor descriptor;
    Acceptance acceptance;
    const std::shared_ptr<const tls::Context> context;
    const int timeoutMs;
    const QByteArray key;
    Notifier reader;
    std::unique_ptr<Notifier> writer; // while the kernel does not take all of the answer
    std::unique_ptr<tls::Session> session; // from the first byte on
    QDeadlineTimer deadline;
    QElapsedTimer clock;
    QAbstractSocket::SocketError error = QAbstractSocket::UnknownSocketError; // if it has failed
    QString failure; // likewise; empty: the session knows it
    quint64 progress = 0; // when: see Handshaker::steps
    bool ready = false;
    bool prolonged = false; // once, for an answer that came in time
    std::list<Open>::iterator position;
    std::list<Open *>::iterator place; // in its address's list
};

Handshaker::Handshaker(Taker taker)
    : take(std::move(taker)),
      turnTimer(this),
      deadlineTimer(this),
      buffer(ReceiveBytes, Qt::Uninitialized)
{
    connect(&turnTimer, &QTimer::timeout, this, &Handshaker::takeTurn);
    deadlineTimer.setSingleShot(true);
    connect(&deadlineTimer, &QTimer::timeout, this, &Handshaker::closeLate);
}

Handshaker::~Handshaker() = default;

void Handshaker::begin(Descriptor descriptor, Acceptance acceptance, const Terms &terms)
{
    makeRoom(terms.mostOpen);
    all.emplace_back(*this, std::move(descriptor), std::move(acceptance), terms);
    Open &handshake = all.back();
    handshake.position = std::prev(all.end());
    Peers &same = peers[handshake.key];
    handshake.place = same.open.insert(same.open.end(), &handshake);
    handshake.progress = ++steps;
    restartClock(handshake);
}

void Handshaker::makeRoom(int mostOpen)
{
    while (static_cast<qsizetype>(all.size()) >= mostOpen) {
        const auto goesFirst = [](const Peers &a, const Peers &b) {
            if (a.open.size() != b.open.size())
                return a.open.size() < b.open.size();
            return a.open.front()->progress > b.open.front()->progress;
        };
        const Peers &most = *std::max_element(peers.cbegin(), peers.cend(), goesFirst);
        // One whose bytes are here waits for this thread, and is not to blame.
        const auto idle = std::find_if(most.open.begin(), most.open.end(), [](const Open *each) {
            return !each->ready && !hasUnread(each->descriptor.get());
        });
        if (idle == most.open.end())
            return;
        end(**idle, Outcome::Crowded);
    }
}

void Handshaker::enqueue(Open &handshake)
{
    if (std::exchange(handshake.ready, true))
        return;
    // Otherwise the event loop would find it again and again.
    handshake.reader.setEnabled(false);
    handshake.writer.reset();
    Peers &same = peers[handshake.key];
    same.ready.push_back(&handshake);
    if (same.ready.size() > 1)
        return;
    turns.push_back(handshake.key);
    if (!turnTimer.isActive())
        turnTimer.start(0);
}

void Handshaker::takeTurn()
{
    const QByteArray key = turns.front();
    turns.pop_front();
    Peers &same = peers[key];
    Open &handshake = *same.ready.front();
    same.ready.pop_front();
    if (!same.ready.empty())
        turns.push_back(key);
    if (turns.empty())
        turnTimer.stop();
    handshake.ready = false;
    step(handshake);
}

void Handshaker::step(Open &handshake)
{
    if (!send(handshake))
        return;
    const ssize_t size = ::recv(handshake.descriptor.get(), buffer.data(),
                                static_cast<std::size_t>(buffer.size()), MSG_DONTWAIT);
    if (size > 0)
        goOn(handshake, QByteArrayView(buffer.constData(), size));
    else if (size == 0 || (errno != EAGAIN && errno != EINTR))
        endByPeer(handshake);
    else
        handshake.reader.setEnabled(true);
}

void Handshaker::goOn(Open &handshake, QByteArrayView received)
{
    if (!handshake.session) {
        // A peer that does not speak TLS is dropped before OpenSSL sees it, and not logged.
        if (received.front() != HandshakeRecord)
            return end(handshake, Outcome::NoTls);
        restartClock(handshake);
        handshake.session = std::make_unique<tls::Session>(handshake.context);
    }
    tls::Session &session = *handshake.session;
    session.feed(received);
    const tls::Session::Step step = session.handshake();
    session.keepRest();
    if (!session.unsent().isEmpty()) { // the peer has moved on
        auto &open = peers[handshake.key].open;
        open.splice(open.end(), open, handshake.place);
        handshake.progress = ++steps;
    }
    const bool sent = send(handshake);
    if (step == tls::Session::Step::Done)
        end(handshake, Outcome::Done); // what is unsent goes along with the session
    else if (step == tls::Session::Step::Failed)
        fail(handshake, Outcome::Failed,
             handshake.context->failure().isEmpty() ? QAbstractSocket::SslHandshakeFailedError
                                                    : QAbstractSocket::SslInvalidUserDataError);
    else if (sent)
        handshake.reader.setEnabled(true);
}

// False: the kernel does not take all of the answer. The handshake goes on when it does.
bool Handshaker::send(Open &handshake)
{
    if (!handshake.session || handshake.session->unsent().isEmpty())
        return true;
    const QByteArray &unsent = handshake.session->unsent();
    const ssize_t size =
            ::send(handshake.descriptor.get(), unsent.constData(),
                   static_cast<std::size_t>(unsent.size()), MSG_DONTWAIT | MSG_NOSIGNAL);
    handshake.session->sent(std::max<ssize_t>(size, 0));
    if (unsent.isEmpty())
        return true;
    if (size < 0 && errno != EAGAIN && errno != EINTR)
        return true; // reading tells the end
    handshake.writer = std::make_unique<Open::Notifier>(handshake, *this, QSocketNotifier::Write);
    return false;
}

void Handshaker::endByPeer(Open &handshake)
{
    // The proxy may only look whether somebody listens.
    if (!handshake.session && handshake.acceptance.isProxied)
        return end(handshake, Outcome::Silent);
    fail(handshake, Outcome::Failed, QAbstractSocket::RemoteHostClosedError,
         QCoreApplication::translate("QNativeSocketEngine",
                                     "The remote host closed the connection"));
}

// text: the reason, unless the session knows it.
void Handshaker::fail(Open &handshake, Outcome outcome, QAbstractSocket::SocketError error,
                      const QString &text)
{
    handshake.error = error;
    handshake.failure = text;
    end(handshake, outcome);
}

void Handshaker::end(Open &handshake, Outcome outcome)
{
    HandshakeResult result;
    result.outcome = outcome;
    result.begun = handshake.session != nullptr;
    result.error = handshake.error;
    result.ns = handshake.clock.nsecsElapsed();
    if (handshake.session)
        result.report = handshake.session->takeReport();
    if (!handshake.failure.isEmpty())
        result.report.failure = handshake.failure;
    result.acceptance = std::move(handshake.acceptance);
    if (outcome == Outcome::Done) {
        result.session = std::move(handshake.session);
        result.descriptor = std::move(handshake.descriptor);
    }
    forget(handshake);
    take(std::move(result));
}

void Handshaker::forget(Open &handshake)
{
    const auto same = peers.find(handshake.key);
    same->open.erase(handshake.place);
    if (handshake.ready) {
        auto &ready = same->ready;
        ready.erase(std::find(ready.begin(), ready.end(), &handshake));
        if (ready.empty())
            turns.erase(std::find(turns.begin(), turns.end(), handshake.key));
        if (turns.empty())
            turnTimer.stop();
    }
    if (same->open.empty())
        peers.erase(same);
    all.erase(handshake.position);
}

void Handshaker::restartClock(Open &handshake)
{
    handshake.deadline.setRemainingTime(handshake.timeoutMs);
    all.splice(all.end(), all, handshake.position);
    if (!deadlineTimer.isActive())
        startTimer();
}

void Handshaker::startTimer()
{
    if (!all.empty())
        deadlineTimer.start(static_cast<int>(all.front().deadline.remainingTime()));
}

void Handshaker::closeLate()
{
    while (!all.empty() && all.front().deadline.hasExpired()) {
        Open &handshake = all.front();
        // If this thread was held up, the answer of the peer may have come in time and be unread.
        if (!handshake.prolonged && hasUnread(handshake.descriptor.get())) {
            handshake.prolonged = true;
            restartClock(handshake);
        } else {
            fail(handshake, Outcome::TimedOut, QAbstractSocket::SocketTimeoutError,
                 QStringLiteral("The handshake took too long"));
        }
    }
    startTimer();
}

// Addresses with the same key take turns as one.
QByteArray Handshaker::keyOf(const QHostAddress &peer)
{
    bool isIpv4 = false;
    const quint32 ipv4 = peer.toIPv4Address(&isIpv4); // also of a mapped one
    const Q_IPV6ADDR ipv6 = peer.toIPv6Address();
    return isIpv4 ? QByteArray(reinterpret_cast<const char *>(&ipv4), sizeof ipv4)
                  : QByteArray(reinterpret_cast<const char *>(ipv6.c), Ipv6NetworkBytes);
}
