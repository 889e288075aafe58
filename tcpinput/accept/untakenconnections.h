// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include "tcpinput/accept/acceptguard.h"

#include <QtCore/QTimer>

/*!
    Connections that no worker could be had for. Nothing announces them a second time: they are
   tried again when the timer comes due, each time later, since each try is logged.

    Thread: the plugin's.
    Owner:  the plugin, as a member.
*/
class UntakenConnections final : public QTimer
{
public:
    // guard: of the server that holds the connection. It accepts nothing meanwhile: that would take
    // the descriptors that the worker's thread waits for.
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

    bool isEmpty() const { return count == 0; }
    void removeOne() { --count; }
    void tryLater() { start(qMin(2 * interval(), LongestRetryMs)); }

private:
    static constexpr int FirstRetryMs = 500;
    static constexpr int LongestRetryMs = 1900;

    int count = 0;
};
