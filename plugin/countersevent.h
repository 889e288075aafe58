// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include "plugin/iinputplugin.h"

#include <QtCore/QCoreApplication>
#include <QtCore/QEvent>
#include <QtCore/QList>
#include <QtCore/QThread>

#include <optional>

//! What a plugin has done since it was made, and how it is at present.
struct InputCounters
{
    // Connections since the plugin was made. Each accepted one is waiting, open, or in one of the
    // counts below, unless it has ended in its handshake or while it waited.
    quint64 accepted = 0;
    quint64 refusedByLimit = 0; // "maxConnectionsPerAddress"
    quint64 refusedByProxyRule = 0; // not from a proxy, and "others" is "refuse"
    quint64 withoutHeader = 0; // no good PROXY header
    quint64 closedByPeer = 0; // these six as the reasons of "ends"
    quint64 closedByReset = 0;
    quint64 closedIdle = 0;
    quint64 closedByTls = 0;
    quint64 closedByLimit = 0;
    quint64 closedByStop = 0;

    // Connections at present.
    quint64 waiting = 0; // no worker has them yet: for a header, a handshake, or their turn
    quint64 open = 0; // a worker has them
    quint64 paused = 0; // of those: "limits" keep them from being read

    quint64 bytes = 0; // read
    quint64 reads = 0;
    quint64 offers = 0; // records with bytes
    quint64 buffered = 0; // bytes at present that the host has not consumed

    // TLS handshakes since it was made.
    quint64 handshakesDone = 0;
    quint64 handshakesFailed = 0;
    quint64 handshakesTimedOut = 0;
    quint64 withoutTls = 0; // the first byte was none of TLS
    quint64 handshakeUs = 0; // sum over those that were done, from acceptance on
    quint64 longestHandshakeUs = 0; // likewise

    //! A worker's thread.
    struct Worker
    {
        int number = 0;
        quint64 turns = 0; // of its event loop
        // How long the counters have shown the turn in which it is now: 0 if it waits for events,
        // or has begun another turn since they were asked for last. If this grows from one question
        // to the next, something holds the worker.
        qint64 turnMs = 0;
    };
    QList<Worker> workers; // those that have a thread, by number
};

/*!
    Asks a plugin for its counters. The workers notice nothing of it.

    Thread: the plugin's.
    Owner:  the caller, on the stack.
*/
class CountersEvent : public QEvent
{
public:
    // In the range of QEvent::User; the same in host and plugin, which are built apart.
    static constexpr auto Number = static_cast<QEvent::Type>(QEvent::User + 27446);
    // To be raised with every change of InputCounters.
    static constexpr int Layout = 1;

    // Nothing if the plugin does not know this question, or has other counters.
    static std::optional<InputCounters> countersOf(IInputPlugin &plugin)
    {
        Q_ASSERT(QThread::currentThread() == plugin.thread());
        CountersEvent event;
        QCoreApplication::sendEvent(&plugin, &event);
        return event.counters;
    }

    // layoutNumber: of the host's counters; another one than Layout only in tests.
    explicit CountersEvent(int layoutNumber = Layout) : QEvent(Number), layout(layoutNumber) {}

    // For the plugin. Null: the event is another one.
    static CountersEvent *from(QEvent *event)
    {
        return event->type() == Number ? dynamic_cast<CountersEvent *>(event) : nullptr;
    }
    // The answer must not be touched if the layout is another one.
    bool hasLayout(int number) const { return layout == number; }
    std::optional<InputCounters> &answer() { return counters; }

private:
    const int layout; // the first member, so that it is found in events of any layout
    std::optional<InputCounters> counters;
};
