// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include "tcpinput/accept/acceptguard.h"
#include "tcpinput/accept/servers.h"

#include <QtCore/QTimer>

/*!
    Connections for which no worker thread could be made. No signal announces them again, so they
    are tried again when the timer fires. Each try is logged, so the intervals grow.

    Thread: the plugin's.
    Owner:  the plugin, as a member.
*/
class UntakenConnections final : public QTimer
{
public:
    // guard: of the server that holds the connection. That server accepts nothing meanwhile: each
    // connection would take a descriptor that the worker's thread needs.
    void add(AcceptGuard &guard)
    {
        ++count;
        guard.hold(true);
        if (!isActive())
            start(FirstRetryMs);
    }
    void forget(AcceptGuard &guard)
    {
        count = 0;
        stop();
        guard.hold(false);
    }

    // To be called when the timer fires. handOver: hands over one of the servers' pending
    // connections; false: there is still no thread.
    template<class HandOver>
    void retry(Servers &servers, HandOver handOver)
    {
        while (count > 0 && servers.active().hasPendingConnections()) {
            if (!handOver()) {
                start(qMin(2 * interval(), LongestRetryMs));
                return;
            }
            --count;
        }
        forget(servers.guard());
    }

private:
    static constexpr int FirstRetryMs = 500;
    static constexpr int LongestRetryMs = 1900;

    int count = 0;
};
