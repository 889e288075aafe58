// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include "host/sinks/sql/database.h"
#include "host/sinks/store.h"

#include <QtCore/QElapsedTimer>
#include <QtCore/QTimer>

#include <chrono>
#include <deque>
#include <memory>
#include <vector>

namespace host {

/*!
    Messages in a database. What comes within 100 ms is one transaction, or less if it is large.

    A transaction that fails is tried again, unchanged, until it is there. Meanwhile the store waits
    50 ms at first and up to a second later.

    Thread: see Store.
    Owner:  the StoreSink.
*/
class SqlStore : public Store
{
    Q_OBJECT

public:
    explicit SqlStore(std::unique_ptr<Database> messageDatabase);
    ~SqlStore() override;

    QString open() override;
    void add(Batch batch) override;
    void close() override;

private:
    enum class State { Closed, Opening, Ready, Writing, Waiting };

    void goOn();
    void scheduleTransaction();
    void beginTransaction();
    void write();

    void noteOpened();
    void noteWritten();
    void noteFailed(const QString &reason);
    void noteWorking();
    void setConnected(bool isConnected);

    const std::unique_ptr<Database> database;
    State state = State::Closed;
    QTimer timer; // Ready: until the next transaction; Waiting: until the next try
    std::deque<Batch> queue;
    qint64 queuedMemory = 0;
    std::vector<Batch> transaction; // being written, or to be tried again
    std::chrono::milliseconds nextWait;
    QElapsedTimer failing; // valid while it is, and the operator has been told
    bool connected = false;
};

} // namespace host
