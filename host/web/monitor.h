// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include "host/web/bulletin.h"
#include "host/web/connectiontable.h"
#include "host/web/monitoroptions.h"
#include "host/web/snapshot.h"

#include <QtCore/QObject>
#include <QtCore/QString>
#include <QtCore/QThread>
#include <QtCore/QTimer>

#include <functional>
#include <memory>

namespace host {

class MetricsFile;
class WebThread;

/*!
    Lets others look at the program: publishes a snapshot of it four times a second, and has threads
    of their own answer requests and write the metrics' file.

    Thread: the host's, with an event loop.
    Owner:  the caller.
*/
class Monitor : public QObject
{
    Q_OBJECT

public:
    // describe: the program as it is now, without the time; called in the host's thread.
    Monitor(MonitorOptions given, std::function<Snapshot()> describe);
    ~Monitor() override;

    // False: errorString() says what cannot be listened on or written.
    bool start();
    QString errorString() const { return error; }

    // Something has changed: does not wait for the next quarter of a second.
    void publish();

    // Who has to see what is read; null: nobody. acknowledged: noteSafe() will be called.
    inputkit::TrafficObserver *observer(bool acknowledged);
    // As Sink::safe().
    void noteSafe(quint64 connection, quint64 end) { table.noteSafe(connection, end); }

Q_SIGNALS:
    // A new snapshot is there.
    void published(const Snapshot &snapshot);

private:
    void publishRows();
    bool startWeb();
    bool startFile();

    const MonitorOptions options;
    const std::function<Snapshot()> describe;
    ConnectionTable table;
    Bulletin bulletin;
    QTimer timer;
    std::unique_ptr<WebThread> web; // null: none
    QThread fileThread;
    std::unique_ptr<MetricsFile> file; // used in its thread; null: none
    QString error;
};

} // namespace host
