// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include "host/sinks/batch.h"
#include "host/sinks/sink.h"
#include "host/sinks/store.h"

#include <QtCore/QMutex>
#include <QtCore/QThread>
#include <QtCore/QTimer>
#include <QtCore/QWaitCondition>

#include <memory>
#include <vector>

namespace host {

/*!
    Hands messages over to a store in a thread of its own, in batches: what comes within a few
    milliseconds is one.

    Thread: its creator's, with an event loop.
    Owner:  the caller. The destructor waits until the store has closed.
*/
class StoreSink : public Sink
{
    Q_OBJECT

public:
    // The sink is full when batches of so many bytes are not safe yet (Batch::memory()).
    static constexpr qint64 DefaultMostMemory = 64 * 1024 * 1024;

    explicit StoreSink(std::unique_ptr<Store> messageStore, qint64 memoryLimit = DefaultMostMemory);
    ~StoreSink() override;

    bool open() override;
    void began(const Origin &origin) override;
    void write(const Message &message) override;
    void ended(const Origin &origin, const QString &reason, quint64 position) override;
    qint64 finish(std::chrono::milliseconds atMost) override;

    bool isConnected() const override { return connected; }

private:
    void added();
    void handOver();
    void report(const Stored &progress);
    void noteReports();
    bool waitForReport(const QDeadlineTimer &deadline);
    void updateFull();
    void close();

    const qint64 mostMemory;
    QThread thread;
    std::unique_ptr<Store> store; // used in the thread, until that has ended
    Batch batch; // not handed over yet
    QTimer timer; // until it is
    qint64 notStored = 0; // in the store
    qint64 unsafeMemory = 0;
    bool connected = false;

    QMutex guard;
    QWaitCondition reported;
    std::vector<Stored> reports; // of the store, not noted yet; guarded
};

} // namespace host
