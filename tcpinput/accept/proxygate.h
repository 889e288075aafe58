// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include "tcpinput/accept/minutenotice.h"
#include "tcpinput/accept/proxyheader.h"
#include "tcpinput/connection/acceptance.h"
#include "tcpinput/connection/proxyrule.h"

#include <QtCore/QDeadlineTimer>
#include <QtCore/QSocketNotifier>
#include <QtCore/QTimer>

#include <functional>
#include <list>
#include <optional>

/*!
    Where accepted connections from proxies wait for their PROXY header. It is read as it comes, and
    not one byte behind it, so that whatever reads the connection next finds the device's first
    byte.

    A connection whose header is bad, or not there in time, is closed. So is one that does not come
    from a proxy, if the rule says so. Neither is rare where somebody scans ports, so a line tells
    of many. A proxy that connects and closes without a word is looking whether somebody listens:
    that is counted and not told by itself.

    Thread: the server's.
    Owner:  the server, as a member.
*/
class ProxyGate : public QObject
{
    Q_OBJECT

public:
    // Is called with a connection whose header was read, and with the peer that it names. May
    // delete the gate.
    using GoOn = std::function<void(qintptr descriptor, Acceptance acceptance)>;

    explicit ProxyGate(GoOn continuation);
    ~ProxyGate() override;

    // For connections accepted from now on. Default: nothing, and nobody is a proxy.
    // Without a rule, connections that still wait are closed.
    void setRule(const std::optional<ProxyRule> &value);
    bool isOn() const { return rule.has_value(); }

    // False: the connection has no header and is served, and is still the caller's. True: it waits
    // here for its header, or was closed; receivers of the signals may have deleted the gate.
    bool takes(qintptr descriptor, const Acceptance &acceptance);

    // One that has ended behind its header, before its first byte of TLS.
    void countSilent() { ++silent; }

    // Since it was made.
    quint64 closedInAll() const { return failures.total(); }
    quint64 refusedInAll() const { return refusals.total(); }

    // How many connections wait.
    qsizetype waiting() const { return static_cast<qsizetype>(connections.size()); }
    // Closes all of them, and tells what was not told yet.
    void close();

Q_SIGNALS:
    // At most once a minute each. count: of connections closed since the last time; silent: of
    // others that have ended before their first byte. latest: the last one's peer, and the reason.
    void closedWithoutHeader(quint64 count, quint64 silent, const QString &latest);
    void refusedOthers(quint64 count, const QString &latest);

private:
    struct Waiting
    {
        qintptr descriptor;
        Acceptance acceptance;
        QDeadlineTimer deadline;
        QSocketNotifier *notifier; // a child of the gate
        ProxyHeader header;
    };
    using Position = std::list<Waiting>::iterator;
    //! What a connection has come to.
    enum class News { None, Whole, Malformed, CutOff, Silent };

    static News receive(Waiting &connection);
    void settle(Position at, News news);
    void pass(Position at);
    void fail(Position at, const QString &reason);
    void closeOne(Position at);
    void forget(Position at);
    void closeLate();

    const GoOn goOn;
    std::optional<ProxyRule> rule;
    std::list<Waiting> connections; // in the order of their deadlines, unless the rule has changed
    QTimer timer; // runs until the first deadline, or earlier
    quint64 silent = 0; // since it was told
    MinuteNotice failures;
    MinuteNotice refusals;
};
