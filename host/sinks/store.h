// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include "host/sinks/batch.h"

#include <QtCore/QObject>
#include <QtCore/QString>

namespace host {

/*!
    A database or a broker behind a StoreSink.

    It makes every message safe once, in the order of each connection, and tries again for ever:
    what fails for now is no failure. It says so in the log, once each time that it cannot go on and
    once when it can again.

    Thread: its own, with an event loop, from open() on; the constructor runs in the sink's.
    Owner:  the StoreSink.
*/
class Store : public QObject
{
    Q_OBJECT

public:
    // The first call. Empty, or why the program must not go on: it names what is wrong with what
    // the operator has given. Waits no longer than some seconds.
    virtual QString open() = 0;

    // Takes over. Does not wait for a server.
    virtual void add(Batch batch) = 0;

    // The last call: gives up what is not safe, and closes. Waits no longer than some seconds.
    virtual void close() = 0;

Q_SIGNALS:
    void stored(const Stored &progress);
    // Whether it can store now. Before the first time: it cannot.
    void connectedChanged(bool isConnected);
};

} // namespace host

Q_DECLARE_METATYPE(host::Stored)
