// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include "plugin/iinputplugin.h"

#include <QtCore/QCoreApplication>
#include <QtCore/QEvent>
#include <QtCore/QThread>

#include <chrono>
#include <optional>

/*!
    Asks a plugin to let its devices go: it accepts no more connections, and tells each device that
    nothing follows from here, as a server does that has ended its half of a connection (FIN, with
    TLS a close_notify before it). It reads on until each device has closed, or until it is stopped.

    What waits in the kernel's accept queue is accepted first, unless the plugin is paused
    (AcceptPause). Connections that wait for a PROXY header, for their TLS handshake or for a worker
    go on, and are told as soon as a worker has them.

    No connection is left when the counters "waiting" and "open" (CountersEvent) are both 0. The
    last records may still be on their way then, as behind stop().

    Holds until stop(). Asked again, the plugin tells those that are left within the new time.

    Thread: the plugin's.
    Owner:  the caller, on the stack.
*/
class Drain : public QEvent
{
public:
    // In the range of QEvent::User; the same in host and plugin, which are built apart.
    static constexpr auto Number = static_cast<QEvent::Type>(QEvent::User + 27450);

    // spread: the devices are told one after the other within this time; 0: all at once. Returns
    // the highest number that a connection of this process has with "offsets" ("connection"): this
    // plugin has none above. Nothing: the plugin does not know the request, and goes on as before.
    static std::optional<quint64> ask(IInputPlugin &plugin, std::chrono::milliseconds spread)
    {
        Q_ASSERT(QThread::currentThread() == plugin.thread());
        Drain event(spread);
        QCoreApplication::sendEvent(&plugin, &event);
        return event.last;
    }

    explicit Drain(std::chrono::milliseconds spread) : QEvent(Number), time(spread) {}

    // For the plugin. Null: the event is another one.
    static Drain *from(QEvent *event)
    {
        return event->type() == Number ? dynamic_cast<Drain *>(event) : nullptr;
    }
    std::chrono::milliseconds spread() const { return time; }
    void confirm(quint64 lastConnection) { last = lastConnection; }

private:
    const std::chrono::milliseconds time;
    std::optional<quint64> last;
};
