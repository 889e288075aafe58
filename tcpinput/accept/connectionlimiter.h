// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include "tcpinput/accept/minutenotice.h"
#include "tcpinput/accept/tokenbucket.h"
#include "tcpinput/connection/acceptance.h"
#include "tcpinput/connection/acceptlimits.h"

#include <QtCore/QObject>
#include <QtCore/QTimer>

#include <atomic>
#include <memory>
#include <optional>

/*!
    Decides whether a server may accept another connection, and whether it keeps an accepted one.

    All limits but one make devices wait in the kernel's accept queue, and refuse nobody. The one of
    an address cannot: who comes next is known only when it was accepted. Such a connection is
    closed.

    Thread: the server's; what a connection holds is released in any.
    Owner:  the server, as a member; connections may outlive it.
    Locks:  that of the table, which is never held while anything else is called.
*/
class ConnectionLimiter : public QObject
{
    Q_OBJECT

public:
    using Time = TokenBucket::Time;

    // minuteMs: a minute, but for tests.
    explicit ConnectionLimiter(int minuteMs = MinuteNotice::MinuteMs);
    ~ConnectionLimiter() override;

    // How many connections are open, of all limiters with this count.
    using Count = std::shared_ptr<std::atomic<int>>;
    // value: not null. Of its own connections, those that come from now on are counted there.
    // Default: its own.
    void setCount(Count value);
    Count count() const;

    // Connections that were accepted under limits before still count. Default: no limits.
    void setLimits(const AcceptLimits &value);

    // A connection was accepted. It counts until its places are gone.
    void enter(Acceptance &acceptance, Time now = std::chrono::steady_clock::now());
    // Call when its peer is known. False: that has too many connections already. The caller closes
    // this one.
    bool keeps(Acceptance &acceptance);

    bool mayRefuse() const { return limits.connectionsPerAddress > 0; }

    // handshakes: how many connections are in one, or before it.
    bool mayAccept(qsizetype handshakes, Time now = std::chrono::steady_clock::now());

    // Since it was made.
    quint64 refusedInAll() const { return refusals.total(); }
    // For the status text; null if nothing is limited.
    QString status() const;

Q_SIGNALS:
    // No more may be open; once, until a minute has passed without such a moment. Emitted in a
    // later pass of the event loop.
    void full(int connections);
    void fullNoMore(int connections);
    // At most once a minute. count: of connections closed since the last time. latest: the peer of
    // the last one.
    void refused(quint64 count, const QString &latest);

private:
    class Table;

    bool isFull();
    void endEpisode();

    AcceptLimits limits;
    std::shared_ptr<Table> table;
    std::optional<TokenBucket> pace;
    QTimer episode; // runs for a minute after the last moment when it was full
    MinuteNotice refusals;
    bool paused = false; // the latest answer was no
};
