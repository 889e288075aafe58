// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include "plugin/iinputplugin.h"

#include <QtCore/QCoreApplication>
#include <QtCore/QEvent>
#include <QtCore/QThread>

/*!
    Asks a plugin to accept no connections, or to accept them again. Devices that come meanwhile
    wait in the kernel, and nobody is refused. Connections that were accepted before go on.

    A plugin that was not asked accepts. What it was asked last holds over all its starts.

    Thread: the plugin's.
    Owner:  the caller, on the stack.
*/
class AcceptPause : public QEvent
{
public:
    // In the range of QEvent::User; the same in host and plugin, which are built apart.
    static constexpr auto Number = static_cast<QEvent::Type>(QEvent::User + 27449);

    // False: the plugin does not know the request, and goes on to accept.
    static bool ask(IInputPlugin &plugin, bool pause)
    {
        Q_ASSERT(QThread::currentThread() == plugin.thread());
        AcceptPause event(pause);
        QCoreApplication::sendEvent(&plugin, &event);
        return event.isKnown;
    }

    explicit AcceptPause(bool pause) : QEvent(Number), wanted(pause) {}

    // For the plugin. Null: the event is another one.
    static AcceptPause *from(QEvent *event)
    {
        return event->type() == Number ? dynamic_cast<AcceptPause *>(event) : nullptr;
    }
    bool isWanted() const { return wanted; }
    void confirm() { isKnown = true; }

private:
    const bool wanted;
    bool isKnown = false;
};
