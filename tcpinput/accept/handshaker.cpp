// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "tcpinput/accept/handshaker.h"

#include "tcpinput/accept/unread.h"
#include "tls/context.h"

#include <QtCore/QCoreApplication>
#include <QtCore/QDeadlineTimer>

#include <algorithm>
#include <cerrno>
#include <optional>
#include <utility>

#include <sys/socket.h>

namespace {

constexpr qsizetype ReceiveBytes = 16 * 1024;
constexpr char HandshakeRecord = 0x16; // first byte of a ClientHello's record, RFC 8446, 5.1

} // namespace

struct Handshaker::Open
{
    Open(Handshaker &keeper, Descriptor accepted, Acceptance accepting, const Terms &terms)
        : descriptor(std::move(accepted)),
          acceptance(std::move(accepting)),
          context(terms.context),
          timeoutMs(terms.timeoutMs),
          place(keeper.open.enter(acceptance.endpoints.peer, this)),
          reader(*this, keeper, QSocketNotifier::Read)
    {
        clock.start();
    }
    const QByteArray &address() const { return place->address; }

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
    const OpenHandshakes<Open *>::Place place;
    Notifier reader;
    std::unique_ptr<Notifier> writer; // while the kernel does not take all of the answer
    std::unique_ptr<tls::Session> session; // from the first byte on
    QDeadlineTimer deadline;
    QElapsedTimer clock;
    QAbstractSocket::SocketError error = QAbstractSocket::UnknownSocketError; // if it has failed
    QString failure; // likewise; empty: the session knows it
    bool isReady = false;
    bool prolonged = false; // once, if this thread was held up
    std::list<Open>::iterator position;
};

Handshaker::Handshaker(Taker taker)
    : take(std::move(taker)),
      turnTimer(this),
      deadlineTimer(this),
      roomTimer(this),
      buffer(ReceiveBytes, Qt::Uninitialized)
{
    connect(&turnTimer, &QTimer::timeout, this, &Handshaker::takeTurn);
    deadlineTimer.setSingleShot(true);
    connect(&deadlineTimer, &QTimer::timeout, this, &Handshaker::closeLate);
    roomTimer.setSingleShot(true);
    connect(&roomTimer, &QTimer::timeout, this, &Handshaker::makeRoom);
}

Handshaker::~Handshaker() = default;

void Handshaker::begin(Descriptor descriptor, Acceptance acceptance, const Terms &terms)
{
    all.emplace_back(*this, std::move(descriptor), std::move(acceptance), terms);
    Open &handshake = all.back();
    handshake.position = std::prev(all.end());
    restartClock(handshake);
    mostOpen = terms.mostOpen;
    if (open.size() > mostOpen && !roomTimer.isActive())
        roomTimer.start(MakeRoomIntervalMs);
}

void Handshaker::makeRoom()
{
    // One whose bytes or end are here waits for this thread, and is not to blame.
    const auto isSpared = [](const Open *each) {
        return each->isReady || hasUnread(each->descriptor.get());
    };
    for (qsizetype left = open.excess(mostOpen, isSpared); left > 0; --left) {
        const std::optional<Open *> next = open.goesFirst();
        if (!next)
            break;
        end(**next, Outcome::Crowded);
    }
    if (open.size() > mostOpen)
        roomTimer.start(MakeRoomIntervalMs);
}

void Handshaker::enqueue(Open &handshake)
{
    if (std::exchange(handshake.isReady, true))
        return;
    // Otherwise the event loop would find it again and again.
    handshake.reader.setEnabled(false);
    handshake.writer.reset();
    QList<Open *> &same = ready[handshake.address()];
    same.append(&handshake);
    if (same.size() > 1)
        return;
    turns.push_back(handshake.address());
    if (!turnTimer.isActive())
        turnTimer.start(0);
}

void Handshaker::takeTurn()
{
    const auto same = ready.find(turns.front());
    Open &handshake = *same->takeFirst();
    if (same->isEmpty())
        ready.erase(same);
    else
        turns.push_back(turns.front());
    turns.pop_front();
    if (turns.empty())
        turnTimer.stop();
    handshake.isReady = false;
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
    if (!session.unsent().isEmpty()) // the peer has moved on
        open.moveOn(handshake.place);
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
    if (handshake.isReady) {
        const auto same = ready.find(handshake.address());
        same->removeOne(&handshake);
        if (same->isEmpty()) {
            ready.erase(same);
            turns.erase(std::find(turns.begin(), turns.end(), handshake.address()));
        }
        if (turns.empty())
            turnTimer.stop();
    }
    open.leave(handshake.place);
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
        // If this thread was held up, the answer of the peer, or its end, may have come in time.
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
