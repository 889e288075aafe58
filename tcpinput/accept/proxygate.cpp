// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "tcpinput/accept/proxygate.h"

#include <QtCore/QPointer>

#include <algorithm>
#include <array>
#include <cerrno>
#include <utility>

#include <sys/socket.h>
#include <unistd.h>

ProxyGate::ProxyGate(GoOn continuation) : goOn(std::move(continuation))
{
    timer.setSingleShot(true);
    connect(&timer, &QTimer::timeout, this, &ProxyGate::closeLate);
    connect(&failures, &MinuteNotice::due, this, [this](quint64 count, const QString &latest) {
        Q_EMIT closedWithoutHeader(count, std::exchange(silent, 0), latest);
    });
    connect(&refusals, &MinuteNotice::due, this, &ProxyGate::refusedOthers);
}

ProxyGate::~ProxyGate()
{
    close();
}

void ProxyGate::setRule(const std::optional<ProxyRule> &value)
{
    rule = value;
    if (!rule)
        close();
}

bool ProxyGate::takes(qintptr descriptor, const Acceptance &acceptance)
{
    if (!rule)
        return false;
    if (!rule->isProxy(acceptance.endpoints.peer)) {
        if (rule->servesOthers)
            return false;
        ::close(static_cast<int>(descriptor));
        refusals.add(acceptance.endpoints.peerText());
        return true;
    }
    auto *notifier = new QSocketNotifier(descriptor, QSocketNotifier::Read, this);
    connections.push_back({descriptor, acceptance, QDeadlineTimer(rule->timeoutMs), notifier, {}});
    connect(notifier, &QSocketNotifier::activated, this,
            [this, at = std::prev(connections.end())] { settle(at, receive(*at)); });
    if (!timer.isActive())
        timer.start(rule->timeoutMs);
    return true;
}

void ProxyGate::close()
{
    timer.stop();
    while (!connections.empty())
        closeOne(connections.begin());
    const QPointer<ProxyGate> self(this);
    failures.finish();
    if (self)
        refusals.finish();
}

// Reads what there is of the header.
ProxyGate::News ProxyGate::receive(Waiting &connection)
{
    std::array<char, ProxyHeader::MostBytes> bytes; // NOLINT(*-member-init): written before read
    ProxyHeader &header = connection.header;
    while (header.state() == ProxyHeader::State::Incomplete) {
        const auto most = static_cast<std::size_t>(header.wanted());
        const ssize_t size = ::recv(static_cast<int>(connection.descriptor), bytes.data(),
                                    std::min(most, bytes.size()), MSG_DONTWAIT);
        if (size < 0 && errno == EINTR)
            continue;
        if (size < 0 && errno == EAGAIN)
            return News::None;
        if (size <= 0)
            return header.isEmpty() ? News::Silent : News::CutOff;
        header.append(QByteArrayView(bytes.data(), size));
    }
    return header.state() == ProxyHeader::State::Complete ? News::Whole : News::Malformed;
}

// The last that its caller does: receivers may close or delete the server.
void ProxyGate::settle(Position at, News news)
{
    switch (news) {
    case News::None:
        return;
    case News::Whole:
        return pass(at);
    case News::Malformed:
        return fail(at, QStringLiteral("malformed"));
    case News::CutOff:
        return fail(at, QStringLiteral("cut off"));
    case News::Silent:
        ++silent;
        return closeOne(at);
    }
}

void ProxyGate::pass(Position at)
{
    const qintptr descriptor = at->descriptor;
    Acceptance acceptance = at->acceptance;
    if (at->header.hasPeer()) {
        acceptance.endpoints.peer = at->header.peer();
        acceptance.endpoints.peerPort = at->header.peerPort();
    }
    acceptance.isProxied = true;
    forget(at);
    goOn(descriptor, std::move(acceptance));
}

void ProxyGate::fail(Position at, const QString &reason)
{
    const QString peer = at->acceptance.endpoints.peerText();
    closeOne(at);
    failures.add(QStringLiteral("%1, %2").arg(peer, reason));
}

void ProxyGate::closeOne(Position at)
{
    const int descriptor = static_cast<int>(at->descriptor);
    forget(at); // first: nothing may watch a descriptor that is closed
    ::close(descriptor);
}

// The notifier may be calling.
void ProxyGate::forget(Position at)
{
    at->notifier->setEnabled(false);
    at->notifier->deleteLater();
    connections.erase(at);
}

void ProxyGate::closeLate()
{
    const QPointer<ProxyGate> self(this);
    while (!connections.empty() && connections.front().deadline.hasExpired()) {
        // If this thread was held up, the header may have come in time and be unread.
        const auto first = connections.begin();
        const News news = receive(*first);
        if (news == News::None)
            fail(first, QStringLiteral("late"));
        else
            settle(first, news);
        if (!self)
            return;
    }
    if (!connections.empty())
        timer.start(static_cast<int>(connections.front().deadline.remainingTime()));
}
