// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include "plugin/kit/inputmessage.h"

#include <QtCore/QObject>

#include <memory>

namespace inputkit {

/*!
    Hands messages and ends to functions in another thread, in their order. They are copied, and the
    copies of one pass of the event loop travel together.

    What is on its way has a limit of 8 MiB, beyond which full(true) is emitted, and full(false)
    when no more than half is left. The last messages of a go may exceed it.

    Thread: its creator's; the functions are called in that of the receiver. They may run an event
            loop there.
    Owner:  the caller. The receiver may be destroyed at any time: what is on its way, or comes
            later, is dropped then, and a warning says so, once.
    Locks:  one, shared with all batches, held while an event is posted.
*/
class HandOver : public QObject
{
    Q_OBJECT

public:
    static constexpr qint64 MostBytes = 8 * 1024 * 1024;

    // receiver: its thread runs an event loop.
    HandOver(QObject *receiver, InputHandlers functions);
    ~HandOver() override;

    void add(const InputMessage &message);
    void add(const InputEnd &end);

    // Sends what has been added so far. Happens by itself in the next pass of the event loop.
    void flush();

Q_SIGNALS:
    void full(bool isFull);

private:
    class Batch;
    struct Shared;

    Batch &batchFor(const Origin &origin);
    void send();
    static void arrive(const InputHandlers &functions, Shared &common,
                       const std::shared_ptr<Batch> &batch);
    void landed();
    void tellFull();

    const std::shared_ptr<const InputHandlers> handlers;
    const std::shared_ptr<Shared> shared;
    std::unique_ptr<Batch> next;
    bool posted = false;
    bool isFull = false;
    bool hasWarned = false;
};

} // namespace inputkit
