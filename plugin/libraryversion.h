// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include "plugin/iinputplugin.h"

#include <QtCore/QCoreApplication>
#include <QtCore/QEvent>
#include <QtCore/QString>
#include <QtCore/QThread>

#include <optional>

//! A release of the library and its headers. A value.
struct LibraryVersion
{
    int major = 0; // another one: the shared classes differ
    int minor = 0; // a higher one has more, and all that a lower one has
    int patch = 0;

    // Of these headers.
    static constexpr LibraryVersion ofHeaders() { return {2, 0, 0}; }

    // Whether a library of this version has all that a host of that one asks for.
    bool serves(const LibraryVersion &host) const
    {
        return major == host.major && minor >= host.minor;
    }

    QString toString() const { return QStringLiteral("%1.%2.%3").arg(major).arg(minor).arg(patch); }
};

/*!
    Asks a plugin of which release its library is.

    Thread: the plugin's.
    Owner:  the caller, on the stack.
*/
class LibraryVersionEvent : public QEvent
{
public:
    // In the range of QEvent::User; the same in host and plugin, which are built apart.
    static constexpr auto Number = static_cast<QEvent::Type>(QEvent::User + 27448);

    // Nothing if the plugin does not know the question: it is older than this header.
    static std::optional<LibraryVersion> ask(IInputPlugin &plugin)
    {
        Q_ASSERT(QThread::currentThread() == plugin.thread());
        LibraryVersionEvent event;
        QCoreApplication::sendEvent(&plugin, &event);
        return event.version;
    }

    LibraryVersionEvent() : QEvent(Number) {}

    // For the plugin. Null: the event is another one.
    static LibraryVersionEvent *from(QEvent *event)
    {
        return event->type() == Number ? dynamic_cast<LibraryVersionEvent *>(event) : nullptr;
    }
    void answer(const LibraryVersion &value) { version = value; }

private:
    std::optional<LibraryVersion> version;
};
