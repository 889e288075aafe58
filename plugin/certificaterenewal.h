// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include "plugin/iinputplugin.h"

#include <QtCore/QCoreApplication>
#include <QtCore/QEvent>
#include <QtCore/QThread>

/*!
    Asks a plugin to read the certificates and keys of its configuration anew. Connections stay as
    they are; handshakes that begin from now on use the new ones.

    Thread: the plugin's.
    Owner:  the caller, on the stack.
*/
class CertificateRenewal : public QEvent
{
public:
    // In the range of QEvent::User; the same in host and plugin, which are built apart.
    static constexpr auto Number = static_cast<QEvent::Type>(QEvent::User + 27447);

    enum class Answer {
        Unknown, // the plugin does not know the question
        Renewed,
        Refused, // the old ones stay in use; the plugin has logged why
    };

    // The plugin must have been started with TLS; otherwise it refuses.
    static Answer ask(IInputPlugin &plugin)
    {
        Q_ASSERT(QThread::currentThread() == plugin.thread());
        CertificateRenewal event;
        QCoreApplication::sendEvent(&plugin, &event);
        return event.given;
    }

    CertificateRenewal() : QEvent(Number) {}

    // For the plugin. Null: the event is another one.
    static CertificateRenewal *from(QEvent *event)
    {
        return event->type() == Number ? dynamic_cast<CertificateRenewal *>(event) : nullptr;
    }
    void answer(Answer value) { given = value; }

private:
    Answer given = Answer::Unknown;
};
