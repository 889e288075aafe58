// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include "host/sinks/batch.h"

#include <QtCore/QObject>
#include <QtCore/QString>

#include <vector>

namespace host {

/*!
    A database as an SqlStore uses it: it opens, and writes transactions, one at a time.

    It does not wait for a server. What takes long ends with a signal; what does not may emit it
    before the call returns.

    Thread: the store's. The constructor runs in another one.
    Owner:  the SqlStore.
*/
class Database : public QObject
{
    Q_OBJECT

public:
    // For log lines. Has no password.
    virtual QString name() const = 0;

    // Makes the tables if they are missing. Ends with opened(), failed() or refused().
    virtual void open() = 0;
    // One transaction: all of it or nothing. What the database has already stays as it is. Ends
    // with written() or failed(). batches: stay until then.
    virtual void write(const std::vector<Batch> &batches) = 0;
    // Gives up what it is doing. Nothing is emitted any more.
    virtual void close() = 0;

Q_SIGNALS:
    void opened();
    void written();
    // Cannot be used for now, and is closed.
    void failed(const QString &reason);
    // Is closed, and trying again is of no use: what the operator has given is wrong.
    void refused(const QString &reason);
};

} // namespace host
