// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include "plugin/iinputplugin.h"

#include <QtCore/QCoreApplication>
#include <QtCore/QEvent>
#include <QtCore/QThread>

#include <any>
#include <utility>

#include <unistd.h>

/*!
    Has a plugin listen with the listening socket of another one, so that it can take the other's
    place while nobody ever finds the port closed. Both accept from the same queue in the kernel;
    when the other closes its server, nothing of that queue is lost.

    The next start() uses the socket if that is bound to the address and port of the configuration.
    Otherwise it closes it, and listens as always. In both cases, connections and bytes of both
    plugins together count for "maxConnections" and "totalBuffer", if both have the limit.

    Both plugins are of one library.

    Thread: the plugins'.
    Owner:  the caller, on the stack.
*/
class SharedPort : public QEvent
{
public:
    // In the range of QEvent::User; the same in host and plugin, which are built apart.
    static constexpr auto Number = static_cast<QEvent::Type>(QEvent::User + 27451);

    // False: the first plugin does not listen, or one of them does not know the request.
    static bool offer(IInputPlugin &from, IInputPlugin &to)
    {
        Q_ASSERT(QThread::currentThread() == from.thread() && from.thread() == to.thread());
        SharedPort question(Step::Lend);
        QCoreApplication::sendEvent(&from, &question);
        SharedPort answer(Step::Use);
        std::swap(question.descriptor, answer.descriptor);
        answer.counts = std::move(question.counts);
        if (answer.descriptor < 0)
            return false;
        QCoreApplication::sendEvent(&to, &answer);
        return answer.descriptor < 0; // it is the other plugin's now
    }

    //! What the plugin is asked to do.
    enum class Step {
        Lend, // give() a copy of its listening descriptor
        Use, // take() the descriptor
    };

    explicit SharedPort(Step what) : QEvent(Number), wanted(what) {}
    ~SharedPort() override
    {
        if (descriptor >= 0)
            ::close(descriptor);
    }
    Q_DISABLE_COPY_MOVE(SharedPort)

    // For the plugin. Null: the event is another one.
    static SharedPort *from(QEvent *event)
    {
        return event->type() == Number ? dynamic_cast<SharedPort *>(event) : nullptr;
    }
    Step step() const { return wanted; }
    // copy: the caller's no more; -1: none. limitCounts: what both count together, as the library
    // knows it.
    void give(int copy, std::any limitCounts)
    {
        descriptor = copy;
        counts = std::move(limitCounts);
    }
    // The caller closes it.
    int take() { return std::exchange(descriptor, -1); }
    const std::any &limitCounts() const { return counts; }

private:
    const Step wanted;
    int descriptor = -1;
    std::any counts;
};
